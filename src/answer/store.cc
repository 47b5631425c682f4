#include "answer/store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>

#include "base/unique_fd.h"

namespace fs = std::filesystem;

namespace kal::answer {

namespace {

struct Named {
    int value;
    const char* name;
};

constexpr Named kStateNames[] = {
    {static_cast<int>(MessageState::New), "new"},
    {static_cast<int>(MessageState::Heard), "heard"},
    {static_cast<int>(MessageState::Saved), "saved"},
    {static_cast<int>(MessageState::Deleted), "deleted"},
};

constexpr Named kOutcomeNames[] = {
    {static_cast<int>(CallOutcome::Ringing), "ringing"},
    {static_cast<int>(CallOutcome::Unanswered), "unanswered"},
    {static_cast<int>(CallOutcome::Answered), "answered"},
    {static_cast<int>(CallOutcome::Message), "message"},
    {static_cast<int>(CallOutcome::NoMessage), "no-message"},
    {static_cast<int>(CallOutcome::Blocked), "blocked"},
    {static_cast<int>(CallOutcome::Fax), "fax"},
    {static_cast<int>(CallOutcome::RemoteCheck), "remote-check"},
    {static_cast<int>(CallOutcome::Interrupted), "interrupted"},
};

template <size_t N>
const char* name_of(const Named (&table)[N], int value) {
    for (const auto& entry : table)
        if (entry.value == value)
            return entry.name;
    return "?";
}

template <size_t N>
std::optional<int> value_of(const Named (&table)[N], const std::string& name) {
    for (const auto& entry : table)
        if (name == entry.name)
            return entry.value;
    return std::nullopt;
}

constexpr const char kSchema[] = R"(
CREATE TABLE IF NOT EXISTS messages(
    id INTEGER PRIMARY KEY,
    mailbox INTEGER NOT NULL,
    line TEXT NOT NULL,
    caller_number TEXT NOT NULL DEFAULT '',
    caller_name TEXT NOT NULL DEFAULT '',
    received INTEGER NOT NULL,
    duration_ms INTEGER NOT NULL,
    state TEXT NOT NULL CHECK(state IN ('new', 'heard', 'saved', 'deleted')),
    file TEXT NOT NULL DEFAULT ''
);
CREATE UNIQUE INDEX IF NOT EXISTS messages_file ON messages(file) WHERE file != '';
CREATE TABLE IF NOT EXISTS calls(
    id INTEGER PRIMARY KEY,
    line TEXT NOT NULL,
    caller_number TEXT NOT NULL DEFAULT '',
    caller_name TEXT NOT NULL DEFAULT '',
    started INTEGER NOT NULL,
    outcome TEXT NOT NULL,
    message_id INTEGER NOT NULL DEFAULT 0
);
)";

constexpr const char kMessageColumns[] =
    "id, mailbox, line, caller_number, caller_name, received, duration_ms, state, file";

std::string text_column(sqlite3_stmt* s, int column) {
    const auto* text = sqlite3_column_text(s, column);
    return text ? reinterpret_cast<const char*>(text) : "";
}

Message read_message(sqlite3_stmt* s) {
    Message m;
    m.id = sqlite3_column_int64(s, 0);
    m.mailbox = sqlite3_column_int(s, 1);
    m.line = text_column(s, 2);
    m.callerNumber = text_column(s, 3);
    m.callerName = text_column(s, 4);
    m.received = sqlite3_column_int64(s, 5);
    m.durationMs = sqlite3_column_int64(s, 6);
    m.state = message_state_named(text_column(s, 7)).value_or(MessageState::New);
    m.file = text_column(s, 8);
    return m;
}

void bind_text(sqlite3_stmt* s, int index, const std::string& text) {
    sqlite3_bind_text(s, index, text.c_str(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

void sync_dir(const std::string& dir) {
    unique_fd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd)
        ::fsync(fd.get());
}

// A transaction that rolls back unless committed.
class Transaction {
  public:
    explicit Transaction(sqlite3* db) : db_(db) {
        if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
            throw StoreError(std::string("cannot begin a transaction: ") + sqlite3_errmsg(db_));
    }
    ~Transaction() {
        if (db_)
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit() {
        if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK)
            throw StoreError(std::string("cannot commit: ") + sqlite3_errmsg(db_));
        db_ = nullptr;
    }

  private:
    sqlite3* db_;
};

}  // namespace

const char* message_state_name(MessageState state) {
    return name_of(kStateNames, static_cast<int>(state));
}
std::optional<MessageState> message_state_named(const std::string& name) {
    auto v = value_of(kStateNames, name);
    return v ? std::optional(static_cast<MessageState>(*v)) : std::nullopt;
}
const char* call_outcome_name(CallOutcome outcome) {
    return name_of(kOutcomeNames, static_cast<int>(outcome));
}
std::optional<CallOutcome> call_outcome_named(const std::string& name) {
    auto v = value_of(kOutcomeNames, name);
    return v ? std::optional(static_cast<CallOutcome>(*v)) : std::nullopt;
}

MessageStore::MessageStore(std::string dir, Opening opening) : dir_(std::move(dir)) {
    std::error_code ec;
    fs::create_directories(messages_dir(), ec);
    if (ec)
        throw StoreError("cannot make " + messages_dir() + ": " + ec.message());
    const std::string path = dir_ + "/messages.db";
    sqlite3* raw = nullptr;
    const int rc =
        sqlite3_open_v2(path.c_str(), &raw,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(raw);
    if (rc != SQLITE_OK)
        throw StoreError("cannot open the message store " + path + ": " +
                         (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc)));
    sqlite3_busy_timeout(db_.get(), 5000);
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=FULL");
    if (opening == Opening::kAlreadyRepaired)
        return;
    // A file that is not a database, or a damaged one, is refused here
    // rather than half-used.
    {
        StatementPtr check = prepare("PRAGMA quick_check");
        if (sqlite3_step(check.get()) != SQLITE_ROW || text_column(check.get(), 0) != "ok")
            throw StoreError("the message store " + path +
                             " is damaged: " + text_column(check.get(), 0));
    }
    exec(kSchema);
    repair_ = repair();
}

void MessageStore::fail(const std::string& what) const {
    throw StoreError(what + " (" + dir_ + "/messages.db): " + sqlite3_errmsg(db_.get()));
}

StatementPtr MessageStore::prepare(const char* sql) const {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db_.get(), sql, -1, &s, nullptr) != SQLITE_OK)
        fail(std::string("cannot prepare '") + sql + "'");
    return StatementPtr(s);
}

void MessageStore::exec(const char* sql) const {
    char* error = nullptr;
    if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string text = error ? error : "unknown error";
        sqlite3_free(error);
        throw StoreError("the message store " + dir_ + "/messages.db: " + text);
    }
}

std::string MessageStore::path_of(const Message& m) const {
    return m.file.empty() ? "" : messages_dir() + "/" + m.file;
}

RepairReport MessageStore::repair() {
    RepairReport report;
    Transaction tx(db_.get());
    std::set<std::string> named;
    {
        StatementPtr rows = prepare("SELECT id, file FROM messages WHERE state != 'deleted'");
        StatementPtr mark =
            prepare("UPDATE messages SET state = 'deleted', file = '' WHERE id = ?");
        std::error_code ec;
        while (sqlite3_step(rows.get()) == SQLITE_ROW) {
            const int64_t id = sqlite3_column_int64(rows.get(), 0);
            const std::string file = text_column(rows.get(), 1);
            if (!file.empty() && fs::is_regular_file(messages_dir() + "/" + file, ec)) {
                named.insert(file);
                continue;
            }
            sqlite3_bind_int64(mark.get(), 1, id);
            if (sqlite3_step(mark.get()) != SQLITE_DONE)
                fail("cannot mark a message without audio deleted");
            sqlite3_reset(mark.get());
            ++report.rowsWithoutFile;
        }
    }
    std::error_code ec;
    for (fs::directory_iterator it(messages_dir(), ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (named.count(name))
            continue;
        if (name.starts_with(".")) {
            // A WAV still being written when the service stopped.
            fs::remove(it->path(), ec);
            ++report.unfinishedFiles;
            continue;
        }
        const std::string lost = dir_ + "/lost+found";
        fs::create_directories(lost, ec);
        fs::rename(it->path(), lost + "/" + name, ec);
        ++report.filesWithoutRow;
    }
    {
        StatementPtr calls = prepare(
            "UPDATE calls SET outcome = 'interrupted' WHERE outcome IN ('ringing', 'answered')");
        if (sqlite3_step(calls.get()) != SQLITE_DONE)
            fail("cannot close the calls left open");
        report.callsInterrupted = sqlite3_changes(db_.get());
    }
    tx.commit();
    return report;
}

Message MessageStore::add_message(const Message& m, const std::string& wav) {
    unique_fd in(::open(wav.c_str(), O_RDONLY | O_CLOEXEC));
    if (!in || ::fsync(in.get()) != 0)
        throw StoreError("cannot read " + wav + ": " + std::strerror(errno));

    Message added = m;
    added.state = MessageState::New;
    Transaction tx(db_.get());
    StatementPtr insert = prepare(
        "INSERT INTO messages(mailbox, line, caller_number, caller_name, received, "
        "duration_ms, state) VALUES(?, ?, ?, ?, ?, ?, 'new')");
    sqlite3_bind_int(insert.get(), 1, m.mailbox);
    bind_text(insert.get(), 2, m.line);
    bind_text(insert.get(), 3, m.callerNumber);
    bind_text(insert.get(), 4, m.callerName);
    sqlite3_bind_int64(insert.get(), 5, m.received);
    sqlite3_bind_int64(insert.get(), 6, m.durationMs);
    if (sqlite3_step(insert.get()) != SQLITE_DONE)
        fail("cannot add a message");
    added.id = sqlite3_last_insert_rowid(db_.get());

    // The name says when, where and which mailbox, so that a file found in
    // lost+found can still be told apart; the id keeps it unique.
    char stamp[32];
    const time_t when = static_cast<time_t>(m.received);
    struct tm tm {};
    localtime_r(&when, &tm);
    strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &tm);
    std::string line;
    for (char c : m.line)
        line += (std::isalnum(static_cast<unsigned char>(c)) || c == '-') ? c : '_';
    added.file = std::string(stamp) + "-" + line + "-m" + std::to_string(m.mailbox) + "-" +
                 std::to_string(added.id) + ".wav";
    StatementPtr name = prepare("UPDATE messages SET file = ? WHERE id = ?");
    bind_text(name.get(), 1, added.file);
    sqlite3_bind_int64(name.get(), 2, added.id);
    if (sqlite3_step(name.get()) != SQLITE_DONE)
        fail("cannot name a message");

    const std::string final_path = path_of(added);
    if (::rename(wav.c_str(), final_path.c_str()) != 0)
        throw StoreError("cannot move " + wav + " into the store: " + std::strerror(errno));
    sync_dir(messages_dir());
    try {
        tx.commit();
    } catch (...) {
        // No row names it: give it back.
        ::rename(final_path.c_str(), wav.c_str());
        throw;
    }
    return added;
}

std::optional<Message> MessageStore::message(int64_t id) const {
    const std::string sql =
        std::string("SELECT ") + kMessageColumns + " FROM messages WHERE id = ?";
    StatementPtr s = prepare(sql.c_str());
    sqlite3_bind_int64(s.get(), 1, id);
    if (sqlite3_step(s.get()) != SQLITE_ROW)
        return std::nullopt;
    return read_message(s.get());
}

std::vector<Message> MessageStore::messages(int mailbox) const {
    const std::string sql = std::string("SELECT ") + kMessageColumns +
                            " FROM messages WHERE state != 'deleted' AND (?1 = 0 OR mailbox = ?1)"
                            " ORDER BY received, id";
    StatementPtr s = prepare(sql.c_str());
    sqlite3_bind_int(s.get(), 1, mailbox);
    std::vector<Message> out;
    while (sqlite3_step(s.get()) == SQLITE_ROW)
        out.push_back(read_message(s.get()));
    return out;
}

int MessageStore::waiting(int mailbox) const {
    StatementPtr s =
        prepare("SELECT count(*) FROM messages WHERE state = 'new' AND (?1 = 0 OR mailbox = ?1)");
    sqlite3_bind_int(s.get(), 1, mailbox);
    return sqlite3_step(s.get()) == SQLITE_ROW ? sqlite3_column_int(s.get(), 0) : 0;
}

bool MessageStore::set_state(int64_t id, MessageState state) {
    if (state == MessageState::Deleted)
        return remove(id);
    StatementPtr s = prepare("UPDATE messages SET state = ? WHERE id = ? AND state != 'deleted'");
    sqlite3_bind_text(s.get(), 1, message_state_name(state), -1, SQLITE_STATIC);
    sqlite3_bind_int64(s.get(), 2, id);
    if (sqlite3_step(s.get()) != SQLITE_DONE)
        fail("cannot change a message");
    return sqlite3_changes(db_.get()) > 0;
}

bool MessageStore::remove(int64_t id) {
    const auto m = message(id);
    if (!m || m->state == MessageState::Deleted)
        return false;
    // The row first: a crash after it leaves a file no row names, which the
    // next repair moves aside; the other order would leave a row without
    // its file.
    Transaction tx(db_.get());
    StatementPtr s = prepare("UPDATE messages SET state = 'deleted', file = '' WHERE id = ?");
    sqlite3_bind_int64(s.get(), 1, id);
    if (sqlite3_step(s.get()) != SQLITE_DONE)
        fail("cannot delete a message");
    tx.commit();
    ::unlink(path_of(*m).c_str());
    return true;
}

int64_t MessageStore::begin_call(const std::string& line, int64_t started) {
    StatementPtr s = prepare("INSERT INTO calls(line, started, outcome) VALUES(?, ?, 'ringing')");
    bind_text(s.get(), 1, line);
    sqlite3_bind_int64(s.get(), 2, started);
    if (sqlite3_step(s.get()) != SQLITE_DONE)
        fail("cannot log a call");
    return sqlite3_last_insert_rowid(db_.get());
}

void MessageStore::update_call(int64_t id, const std::string& callerNumber,
                               const std::string& callerName) {
    StatementPtr s = prepare("UPDATE calls SET caller_number = ?, caller_name = ? WHERE id = ?");
    bind_text(s.get(), 1, callerNumber);
    bind_text(s.get(), 2, callerName);
    sqlite3_bind_int64(s.get(), 3, id);
    if (sqlite3_step(s.get()) != SQLITE_DONE)
        fail("cannot log a caller");
}

void MessageStore::set_call_outcome(int64_t id, CallOutcome outcome, int64_t messageId) {
    StatementPtr s = prepare("UPDATE calls SET outcome = ?, message_id = ? WHERE id = ?");
    sqlite3_bind_text(s.get(), 1, call_outcome_name(outcome), -1, SQLITE_STATIC);
    sqlite3_bind_int64(s.get(), 2, messageId);
    sqlite3_bind_int64(s.get(), 3, id);
    if (sqlite3_step(s.get()) != SQLITE_DONE)
        fail("cannot log the end of a call");
}

std::vector<CallRecord> MessageStore::calls(int limit) const {
    StatementPtr s = prepare(
        "SELECT id, line, caller_number, caller_name, started, outcome, message_id FROM calls "
        "ORDER BY started DESC, id DESC LIMIT ?");
    sqlite3_bind_int(s.get(), 1, limit);
    std::vector<CallRecord> out;
    while (sqlite3_step(s.get()) == SQLITE_ROW) {
        CallRecord c;
        c.id = sqlite3_column_int64(s.get(), 0);
        c.line = text_column(s.get(), 1);
        c.callerNumber = text_column(s.get(), 2);
        c.callerName = text_column(s.get(), 3);
        c.started = sqlite3_column_int64(s.get(), 4);
        c.outcome = call_outcome_named(text_column(s.get(), 5)).value_or(CallOutcome::Ringing);
        c.messageId = sqlite3_column_int64(s.get(), 6);
        out.push_back(std::move(c));
    }
    return out;
}

}  // namespace kal::answer
