#pragma once

// The single path by which commands reach the line monitors. Any thread
// fills an lm_todo and queues it with add_todo, which writes one "@" to the
// line event thread's userisr pipe; that thread serves one request per byte
// (service_userisr), finds the adapter by serial and writes the command.
// So no two threads ever write to one line monitor's socket.

#include <memory>
#include <optional>
#include <string>

enum TodoType : int {
    REQ_DIAL = 1,          // data: dial string; token
    REQ_PLAY = 2,          // data: lm_audio_request bytes; token
    REQ_RECORD = 3,        // data: lm_audio_request bytes; token
    REQ_HANGUP = 4,        //
    REQ_CANCEL_AUDIO = 5,  //
    REQ_SET_DEADMAN = 6,   // deadman: seconds
    REQ_BEEP = 7,          // value: beep type
    REQ_TRV = 8,           // data: text; value: vls
    REQ_CALL = 9,          // data: lm_call_request bytes
};

struct lm_todo {
    int type = 0;
    std::string data;                  // the request's main payload (see TodoType)
    int deadman = 0;                   // REQ_SET_DEADMAN: the timeout in seconds
    std::optional<std::string> extra;  // carried by some client requests; no command uses it
    std::optional<std::string> token;  // the client's token, for notifications
    std::string serial;                // the target adapter
    int value = 0;                     // beep type or vls
};

// Queues `todo` (first in, first out) and wakes the line event thread. A
// failed wake-up is logged; the request stays queued for a later one.
void add_todo(std::unique_ptr<lm_todo> todo);

// Serves the oldest request. Line event thread only.
void service_userisr();

// Requests in the queue (for tests and diagnostics).
int queued_todo_count();
