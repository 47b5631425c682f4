#pragma once

// Owning handles for the main loop's sd-event objects. The main loop belongs
// to the main thread: only it touches these.

#include <systemd/sd-event.h>

#include <memory>

namespace kal {

struct SdEventUnref {
    void operator()(sd_event* e) const { sd_event_unref(e); }
};
struct SdEventSourceUnref {
    void operator()(sd_event_source* s) const { sd_event_source_unref(s); }
};
using EventPtr = std::unique_ptr<sd_event, SdEventUnref>;
using EventSourcePtr = std::unique_ptr<sd_event_source, SdEventSourceUnref>;

}  // namespace kal
