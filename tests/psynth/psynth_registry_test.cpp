// Module types found by the names song files store.
#include <gtest/gtest.h>

#include <cstring>

#include "psynth/psynth_modules.h"

TEST(PsynthRegistryTest, EveryTypeIsFoundByItsOwnName) {
    ASSERT_GE(psynth_get_module_types_count(), 2);
    for (int i = 0; i < psynth_get_module_types_count(); i++) {
        psynth_handler h = psynth_get_module_type(i);
        const char* name = psynth_get_module_type_name(h);
        ASSERT_NE(name, nullptr);
        EXPECT_EQ(psynth_find_module_type(name), h) << name;
    }
    EXPECT_EQ(psynth_find_module_type("Sampler"), psynth_sampler);
    EXPECT_EQ(psynth_find_module_type("Generator"), psynth_generator);
    EXPECT_EQ(psynth_find_module_type("FM"), psynth_fm);
    EXPECT_EQ(psynth_find_module_type("MultiSynth"), psynth_multisynth);
    EXPECT_EQ(psynth_find_module_type("ANS"), psynth_ans);
    EXPECT_EQ(psynth_find_module_type("No such module"), nullptr);
    EXPECT_EQ(psynth_find_module_type(nullptr), nullptr);
    EXPECT_EQ(psynth_get_module_type(-1), nullptr);
}
