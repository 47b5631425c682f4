#pragma once

// The Notifier turns what the daemon has to tell clients into notifications
// on the in-process centre: "qlx_event" for line events and node requests
// (always with KALNotificationName), "RequestComplete" for request outcomes
// (never with it). The client service forwards both to subscribers.
//
// Thread-safe: the line event thread, the timer thread, the supervisor and
// client requests all report through it.

#include <cstddef>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "service/notification_center.h"

class Notifier {
  public:
    // The one instance, created on first use and never destroyed.
    static Notifier& soleInstance();

    void handleQLXEvent(const char* data, size_t length, int ch, int qlx,
                        const std::string& serial);
    void notifyCommandFailure(const std::string& token, const std::string& code,
                              const std::optional<std::string>& serial);
    void reportVMNodeCompletion(const std::string& token, const std::string& code,
                                const std::string& cause, bool onHook, const std::string& serial);
    void reportCallCompletion(const std::string& token, const std::string& code,
                              const std::string& modemResponse, const std::string& serial);
    void notifyDialSuccess(const std::string& token, const std::string& dialstring,
                           const std::string& serial);
    void reportAutodialedDigits(const std::string& token, const std::string& digits,
                                const std::string& serial);
    void reportResourceChange(const std::string& serial, bool available);
    void requestScriptExecution(const std::string& token, int sequence, const std::string& code,
                                const std::string& serial);
    void requestNextVMCheck(const std::string& token, const std::string& serial,
                            const std::string& disposition, const std::string& stream);
    void requestVMCheckRestart(const std::string& token, const std::string& serial);
    void notifyOfVMRecordingStart(const std::string& token, const std::string& serial);

    // Serials of the adapters whose line is off hook, as last reported.
    std::set<std::string> offHookSet() const;

  private:
    explicit Notifier(kal::NotificationCenter& center) : dnc_(center) {}
    void post(const char* name, const std::string& serial, kal::ValueDict info);

    kal::NotificationCenter& dnc_;
    mutable std::mutex offhook_mutex_;  // guards offHookSet_
    std::set<std::string> offHookSet_;
};

// Plain entry points for the C-shaped parts of the daemon (line I/O, core,
// nodes). Each may be called from any thread. Every entry point and the
// member it calls take their arguments in the same order (the token first,
// the serial last), so two texts of one type can never be swapped in passing.
void handle_qlx_message(const char* buffer, int length, int qlx, const char* serial);
void notify_cmd_failure(const std::string& token, const std::string& code,
                        const std::optional<std::string>& serial);
void notify_dial_success(const std::string& token, const std::string& dialstring,
                         const std::string& serial);
void report_autodialed_digits(const std::string& token, const std::string& digits,
                              const std::string& serial);
void report_available_resource(const std::string& serial);
void report_disconnected_resource(const std::string& serial);
void report_vmnode_complete(const std::string& token, const std::string& code, char cause,
                            char onHook, const std::string& serial);
void report_vmnode_completes(const std::string& token, const std::string& code,
                             const std::string& cause, char onHook, const std::string& serial);
void report_crnode_complete(const std::string& token, const std::string& code, char cause,
                            char onHook, const std::string& serial);
// Deliberately does nothing: the script node reports through its own requests.
void report_script_session_complete(const std::string& token, const std::string& code, char cause,
                                    char onHook, const std::string& serial);
void report_call_placed(const std::string& token, const std::string& code,
                        const std::string& modemResponse, const std::string& serial);
void request_script_execution(const std::string& token, int sequence, const std::string& code,
                              const std::string& serial);
void vmcheck_request_next(const std::string& token, const std::string& serial,
                          const std::string& disposition, const std::string& stream);
void vmcheck_request_restart(const std::string& token, const std::string& serial);
void report_vm_record_start(const std::string& token, const std::string& serial);
