#include "lineio/request_queue.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>

#include "core/device_table.h"
#include "lineio/intrapc.h"
#include "lineio/lineisr.h"
#include "lineio/protocol.h"
#include "lineio/safe_io.h"
#include "log/kallog.h"
#include "service/notifier.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

// Guarded by the intra-process lock.
std::deque<std::unique_ptr<lm_todo>>& todo_queue = *new std::deque<std::unique_ptr<lm_todo>>;

// The command for `t`, or nullopt (after logging the discard) when it
// cannot be sent to adapter `index` (-1: unknown serial).
std::optional<std::string> build_command(const lm_todo& t, int index) {
    const bool known = index >= 0;
    auto discard = [&](const char* what) -> std::optional<std::string> {
        kallog(KAL_WARN, "Discarding %s request for non-existent serial number %s", what,
               t.serial.c_str());
        return std::nullopt;
    };
    switch (t.type) {
        case REQ_DIAL: {
            if (!known) {
                notify_cmd_failure(t.token.value_or(""), kal_ResponseCode_ERR_NoResource, t.serial);
                return std::nullopt;
            }
            std::string cmd = lm::cmd_dial(t.data);
            kallog(KAL_DEBUG, "Sending dial command to QLX%d: %s", index, cmd.c_str());
            const std::string& serial = t.serial;
            notify_dial_success(t.token.value_or(""), t.data, serial);
            report_autodialed_digits(t.token.value_or(""), t.data, serial);
            return cmd;
        }
        case REQ_CALL:
            if (!known)
                return discard("call");
            kallog(KAL_DEBUG, "Sending call request to QLX%d", index);
            return std::string(1, lm::kCmdCall) + t.data;
        case REQ_PLAY:
        case REQ_RECORD:
            if (!known)
                return discard("play/record");
            kallog(KAL_DEBUG,
                   t.type == REQ_PLAY ? "Sending playback command to QLX%d"
                                      : "Sending record command to QLX%d",
                   index);
            return std::string(1, t.type == REQ_PLAY ? lm::kCmdPlay : lm::kCmdRecord) + t.data;
        case REQ_HANGUP:
            if (!known)
                return discard("hangup");
            kallog(KAL_DEBUG, "Sending hangup command to QLX%d", index);
            return lm::cmd_hangup();
        case REQ_CANCEL_AUDIO:
            if (!known)
                return discard("audio cancel");
            kallog(KAL_DEBUG, "Sending audio cancel command to QLX%d", index);
            return lm::cmd_cancel_audio();
        case REQ_SET_DEADMAN:
            if (!known)
                return discard("timeout extension");
            kallog(KAL_DEBUG, "Sending set-deadman command to QLX%d", index);
            return lm::cmd_deadman(t.deadman);
        case REQ_BEEP:
            if (!known)
                return discard("beep");
            kallog(KAL_DEBUG, "Sending beep command to QLX%d", index);
            return lm::cmd_beep(t.value);
        case REQ_TRV:
            if (!known)
                return discard("TRV");
            kallog(KAL_DEBUG, "Sending TRV command with vls=%d to QLX%d for %s", t.value, index,
                   t.data.c_str());
            return lm::cmd_trv(t.value, t.data);
        default:
            kallog(KAL_WARN, "Ignoring unknown userisr request code %d.", t.type);
            return std::nullopt;
    }
}

}  // namespace

void add_todo(std::unique_ptr<lm_todo> todo) {
    lock_intrapc();
    todo_queue.push_back(std::move(todo));
    ssize_t n = write(lmthread_userisr_socket_public, "@", 1);
    if (n != 1) {
        int e = errno;
        kallog(KAL_WARN,
               "Couldn't wake up linemonitor service thread for userisr. Write returned %d. "
               "(%d-%s). Not quitting and not trying again.",
               static_cast<int>(n), e, strerror(e));
    }
    unlock_intrapc();
}

int queued_todo_count() {
    lock_intrapc();
    int n = static_cast<int>(todo_queue.size());
    unlock_intrapc();
    return n;
}

void service_userisr() {
    lock_intrapc();
    if (todo_queue.empty()) {
        kallog(KAL_WARN, "LineISR: Signalled to check UserISR queue, but it's empty! Continuing.");
        unlock_intrapc();
        return;
    }
    std::unique_ptr<lm_todo> todo = std::move(todo_queue.front());
    todo_queue.pop_front();
    unlock_intrapc();

    std::optional<std::string> cmd;
    int fd = -1;
    int index = -1;
    {
        DeviceTableLock lock(kTableRead);
        const qlx* rec = line_by_serial(todo->serial);
        index = rec ? line_index(*rec) : -1;
        // Decided before the command is built: building a dial already
        // tells the client it went out, which a line without a running
        // line monitor must not do.
        if (rec && (!rec->fd || line_monitor_ended(rec->fd.get()))) {
            kallog(KAL_WARN, "QLX%d has no running line monitor. Dropping the command.", index);
            if (todo->type == REQ_DIAL)
                notify_cmd_failure(todo->token.value_or(""), kal_ResponseCode_ERR_NoResource,
                                   todo->serial);
            return;
        }
        cmd = build_command(*todo, index);
        if (rec)
            fd = rec->fd.get();
    }
    if (!cmd)
        return;
    // Written without the device-table lock (the socket stays open: only a
    // rescan closes line sockets, and rescans run on this thread) and within
    // the frame limit: a line monitor that stops reading its socket must
    // not freeze this thread, and with it every line, nor the clients
    // needing the table. One that does not take a command in that time is
    // treated as dead.
    const auto limit = line_frame_limit();
    if (dmp_write_within(fd, cmd->data(), cmd->size(), limit) !=
        static_cast<ssize_t>(cmd->size())) {
        const int e = errno;
        kallog(KAL_ERR,
               "Couldn't write a command to QLX%d within %d ms (%d-%s). Treating it as dead.",
               index, static_cast<int>(limit.count()), e, strerror(e));
        end_line_monitor(fd);
    }
}
