#include "service/notifier.h"

#include <cstring>

#include "base/clock.h"
#include "log/kallog.h"
#include "service/vocabulary.h"

using namespace kal;

namespace {

std::string describe_set(const std::set<std::string>& set) {
    std::string out = "{(";
    bool first = true;
    for (const auto& s : set) {
        out += (first ? "" : ", ") + s;
        first = false;
    }
    return out + ")}";
}

int64_t event_time() {
    return static_cast<int64_t>(kal::now());
}

}  // namespace

Notifier& Notifier::soleInstance() {
    static Notifier* theNotifier = new Notifier(NotificationCenter::defaultCenter());
    return *theNotifier;
}

std::set<std::string> Notifier::offHookSet() const {
    std::lock_guard lock(offhook_mutex_);
    return offHookSet_;
}

void Notifier::post(const char* name, const std::string& serial, ValueDict info) {
    info[kal_EventTimeKey] = event_time();
    dnc_.post(Notification{name, Value(serial), std::move(info)});
}

void Notifier::handleQLXEvent(const char* data, size_t length, int ch, int qlx,
                              const std::string& serial) {
    kallog(KAL_DEVEL, "Got #%d ('%c') message from QLX%d (%s)", ch, ch, qlx, serial.c_str());
    ValueDict info{{kal_QLXSerialNumberKey, serial}, {kal_QLXNumberKey, int32_t{qlx}}};
    const char* event = nullptr;
    switch (ch) {
        case '#':
            event = kal_DigitDialed;
            if (length > 1)
                info[kal_DigitContentsKey] = std::string(1, data[1]);
            break;
        case '/':
            kallog(KAL_DEBUG,
                   "Ignoring call placed response transmission by QLX. Only interesting to nodes.");
            return;
        case 'P':
        case 'p': {
            event = kal_HookStatus;
            const bool on_hook = ch == 'p';
            info[kal_HookContentsKey] = int32_t{on_hook ? 1 : 0};
            std::lock_guard lock(offhook_mutex_);
            if (on_hook) {
                offHookSet_.erase(serial);
                kallog(KAL_DEVEL, "Removed %s from offhook set. New set: %s", serial.c_str(),
                       describe_set(offHookSet_).c_str());
            } else {
                offHookSet_.insert(serial);
                kallog(KAL_DEVEL, "Added %s to offhook set. New set: %s", serial.c_str(),
                       describe_set(offHookSet_).c_str());
            }
            info[kal_OffHookCount] = static_cast<int32_t>(offHookSet_.size());
            break;
        }
        case 'R':
            event = kal_RingDetect;
            break;
        case 'S':
            kallog(KAL_DEBUG, "Ignoring signal notification by QLX. Only interesting to nodes.");
            return;
        case 'X':
            event = kal_CallerID;
            if (length > 1)
                info[kal_CallerIDContentsKey] =
                    std::string(data + 1, strnlen(data + 1, length - 1));
            break;
        case '^':
            kallog(KAL_DEBUG,
                   "Ignoring audio response transmission by QLX. Only interesting to nodes.");
            return;
        case 'b':
            event = kal_BusyTone;
            break;
        case 'c':
            event = kal_IncomingFaxTone;
            break;
        case 'd':
            event = kal_Dialtone;
            break;
        case 'e':
            event = kal_DataTone;
            break;
        case 'l':
            event = kal_LineReversal;
            break;
        case 'o':
        case 'u':
            event = kal_FlowControl;
            info[kal_FlowControlContentsKey] = int32_t{ch == 'o' ? 1 : 0};
            break;
        case 's':
            kallog(KAL_DEBUG, "Ignoring silence notification by QLX. Only interesting to nodes.");
            return;
        default:
            kallog(KAL_WARN,
                   "Got unexpected ctl character #%d ('%c') from line monitor for QLX%d (%s). "
                   "Ignoring.",
                   ch, ch, qlx, serial.c_str());
            return;
    }
    info[kal_NotificationNameKey] = event;
    post(kal_QLXEvent, serial, std::move(info));
}

void Notifier::notifyCommandFailure(const std::string& token, const std::string& code,
                                    const std::optional<std::string>& serial) {
    ValueDict info{{kal_Token, token}, {kal_ResponseCode, code}};
    if (serial)
        info[kal_QLXSerialNumberKey] = *serial;
    info[kal_EventTimeKey] = event_time();
    dnc_.post(
        Notification{kal_RequestComplete, serial ? Value(*serial) : Value(), std::move(info)});
}

void Notifier::reportVMNodeCompletion(const std::string& token, const std::string& code,
                                      const std::string& cause, bool onHook,
                                      const std::string& serial) {
    post(kal_RequestComplete, serial,
         {{kal_Token, token},
          {kal_QLXSerialNumberKey, serial},
          {kal_ResponseCode, code},
          {kal_HookContentsKey, int32_t{onHook ? 1 : 0}},
          {kal_DigitContentsKey, cause}});
}

void Notifier::reportCallCompletion(const std::string& token, const std::string& code,
                                    const std::string& modemResponse, const std::string& serial) {
    post(kal_RequestComplete, serial,
         {{kal_Token, token},
          {kal_QLXSerialNumberKey, serial},
          {kal_ResponseCode, code},
          {kal_ModemResponse, modemResponse}});
}

void Notifier::notifyDialSuccess(const std::string& token, const std::string& dialstring,
                                 const std::string& serial) {
    post(kal_RequestComplete, serial,
         {{kal_Token, token},
          {kal_ResponseCode, kal_ResponseCode_OK},
          {kal_QLXSerialNumberKey, serial},
          {kal_Request_DialString, dialstring},
          {kal_OriginalRequestKey, kal_PleaseDial}});
}

void Notifier::reportAutodialedDigits(const std::string& token, const std::string& digits,
                                      const std::string& serial) {
    ValueDict info{{kal_Token, token},
                   {kal_QLXSerialNumberKey, serial},
                   {kal_MassDigitContentsKey, digits},
                   {kal_EventTimeKey, event_time()},
                   {kal_NotificationNameKey, kal_DigitDialed}};
    for (char c : digits) {
        const bool qualifies =
            (c >= '0' && c <= '9') || (c >= 'A' && c <= 'D') || c == '*' || c == '#';
        if (!qualifies)
            continue;
        kallog(KAL_DEVEL, "Sending up autodialed digit %c", c);
        info[kal_DigitContentsKey] = std::string(1, c);
        dnc_.post(Notification{kal_QLXEvent, Value(serial), info});
    }
}

void Notifier::reportResourceChange(const std::string& serial, bool available) {
    bool was_off_hook;
    {
        std::lock_guard lock(offhook_mutex_);
        was_off_hook = offHookSet_.count(serial) > 0;
    }
    if (!available && was_off_hook) {
        // A vanished adapter must never look off hook forever to clients
        // that track hook state (conferencing clients, for one).
        kallog(KAL_DEVEL, "Generating onhook message due to resource change to support iChat");
        const char onhook = 'p';
        handleQLXEvent(&onhook, 1, 'p', -1, serial);
    }
    post(kal_QLXEvent, serial,
         {{kal_QLXSerialNumberKey, serial},
          {kal_ResourceAvailabilityKey, int32_t{available ? 1 : 0}},
          {kal_NotificationNameKey, kal_ResourceAvailabilityChanged}});
    std::lock_guard lock(offhook_mutex_);
    offHookSet_.erase(serial);
}

void Notifier::requestScriptExecution(const std::string& token, int sequence,
                                      const std::string& code, const std::string& serial) {
    post(kal_QLXEvent, serial,
         {{kal_Token, token},
          {kal_QLXSerialNumberKey, serial},
          {kal_DigitContentsKey, code},
          {kal_SequenceNumber, int32_t{sequence}},
          {kal_NotificationNameKey, kal_PleaseRunActionScriptForCaller}});
}

void Notifier::requestNextVMCheck(const std::string& token, const std::string& serial,
                                  const std::string& disposition, const std::string& stream) {
    post(kal_QLXEvent, serial,
         {{kal_Token, token},
          {kal_QLXSerialNumberKey, serial},
          {kal_VMCheckPresentMessageDisposition, disposition},
          {kal_VMCheck_Filter, stream},
          {kal_NotificationNameKey, kal_PleaseProvideNextMessageForVMCheck}});
}

void Notifier::requestVMCheckRestart(const std::string& token, const std::string& serial) {
    post(kal_QLXEvent, serial,
         {{kal_Token, token},
          {kal_QLXSerialNumberKey, serial},
          {kal_NotificationNameKey, kal_PleaseRestartVMCheck}});
}

void Notifier::notifyOfVMRecordingStart(const std::string& token, const std::string& serial) {
    post(kal_QLXEvent, serial,
         {{kal_Token, token},
          {kal_QLXSerialNumberKey, serial},
          {kal_NotificationNameKey, kal_VMRecordingStart}});
}

// ---- plain entry points ----

void handle_qlx_message(const char* buffer, int length, int qlx, const char* serial) {
    if (length < 1)
        return;
    Notifier::soleInstance().handleQLXEvent(buffer, static_cast<size_t>(length),
                                            static_cast<signed char>(buffer[0]), qlx,
                                            serial ? serial : "");
}

void notify_cmd_failure(const std::string& token, const std::string& code,
                        const std::optional<std::string>& serial) {
    Notifier::soleInstance().notifyCommandFailure(token, code, serial);
}

void notify_dial_success(const std::string& token, const std::string& dialstring,
                         const std::string& serial) {
    Notifier::soleInstance().notifyDialSuccess(token, dialstring, serial);
}

void report_autodialed_digits(const std::string& token, const std::string& digits,
                              const std::string& serial) {
    Notifier::soleInstance().reportAutodialedDigits(token, digits, serial);
}

void report_available_resource(const std::string& serial) {
    Notifier::soleInstance().reportResourceChange(serial, true);
}

void report_disconnected_resource(const std::string& serial) {
    Notifier::soleInstance().reportResourceChange(serial, false);
}

void report_vmnode_complete(const std::string& token, const std::string& code, char cause,
                            char onHook, const std::string& serial) {
    // A cause of 0 means "no cause": an empty text, since a NUL has no
    // place in a string a client receives.
    Notifier::soleInstance().reportVMNodeCompletion(
        token, code, cause ? std::string(1, cause) : std::string(), onHook != 0, serial);
}

void report_vmnode_completes(const std::string& token, const std::string& code,
                             const std::string& cause, char onHook, const std::string& serial) {
    Notifier::soleInstance().reportVMNodeCompletion(token, code, cause, onHook != 0, serial);
}

void report_crnode_complete(const std::string& token, const std::string& code, char cause,
                            char onHook, const std::string& serial) {
    report_vmnode_complete(token, code, cause, onHook, serial);
}

void report_script_session_complete(const std::string&, const std::string&, char, char,
                                    const std::string&) {}

void report_call_placed(const std::string& token, const std::string& code,
                        const std::string& modemResponse, const std::string& serial) {
    Notifier::soleInstance().reportCallCompletion(token, code, modemResponse, serial);
}

void request_script_execution(const std::string& token, int sequence, const std::string& code,
                              const std::string& serial) {
    Notifier::soleInstance().requestScriptExecution(token, sequence, code, serial);
}

void vmcheck_request_next(const std::string& token, const std::string& serial,
                          const std::string& disposition, const std::string& stream) {
    Notifier::soleInstance().requestNextVMCheck(token, serial, disposition, stream);
}

void vmcheck_request_restart(const std::string& token, const std::string& serial) {
    Notifier::soleInstance().requestVMCheckRestart(token, serial);
}

void report_vm_record_start(const std::string& token, const std::string& serial) {
    Notifier::soleInstance().notifyOfVMRecordingStart(token, serial);
}
