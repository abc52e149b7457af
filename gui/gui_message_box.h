// Modal message boxes for the texts meant for the user: "!Text" with buttons given as
// one ";"-separated list ("Yes;No", "Load RAW;Cancel"). Enter picks the first button,
// Esc the last. Boxes queue: a new one waits until the one on screen is answered.
#pragma once

constexpr int GUI_MESSAGE_BOX_QUEUE = 8;
constexpr int GUI_MESSAGE_TEXT_SIZE = 512;
constexpr int GUI_MESSAGE_BUTTONS_SIZE = 128;

typedef void (*gui_message_answer)(int button, void* data);

struct gui_message_box_entry {
    char text[GUI_MESSAGE_TEXT_SIZE];       // without the leading "!"
    char buttons[GUI_MESSAGE_BUTTONS_SIZE];
    gui_message_answer answer;              // may be null
    void* data;
};

struct gui_message_boxes {
    gui_message_box_entry queue[GUI_MESSAGE_BOX_QUEUE];
    int count;
    int opened;  // frames the first entry's popup has been on screen
};

// Queues a box (null or "" buttons: "OK"). Returns 0, or 1 when the queue is full (the
// answer is then the last button, at once).
int gui_message_box_show(gui_message_boxes* boxes, const char* text, const char* buttons, gui_message_answer answer,
                         void* data);
// Draws the box on screen; calls its answer when a button is chosen. Once a frame.
void gui_message_boxes_draw(gui_message_boxes* boxes);
// Non-zero while a box waits for an answer.
int gui_message_box_open(const gui_message_boxes* boxes);
