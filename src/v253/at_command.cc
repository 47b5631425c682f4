#include "v253/at_command.h"

#include <algorithm>
#include <cctype>

#include "v253/text.h"

namespace v253 {

namespace {

struct ResultName {
    AtResult result;
    const char* text;
};
constexpr ResultName kResults[] = {
    {AtResult::None, "none"},          {AtResult::Ok, "OK"},
    {AtResult::Vcon, "VCON"},          {AtResult::Connect, "CONNECT"},
    {AtResult::Error, "ERROR"},        {AtResult::NoCarrier, "NO CARRIER"},
    {AtResult::Busy, "BUSY"},          {AtResult::NoDialtone, "NO DIALTONE"},
    {AtResult::NoAnswer, "NO ANSWER"},
};

}  // namespace

const char* at_result_name(AtResult r) {
    for (const auto& n : kResults)
        if (n.result == r)
            return n.text;
    return "?";
}

AtResult classify_result(std::string_view line) {
    line = trim(line);
    // CONNECT may carry a speed or a mode after it.
    if (line == "CONNECT" || line.rfind("CONNECT ", 0) == 0)
        return AtResult::Connect;
    // Some modems say NO DIAL TONE.
    if (line == "NO DIAL TONE")
        return AtResult::NoDialtone;
    for (const auto& n : kResults)
        if (n.result != AtResult::None && n.result != AtResult::Connect && line == n.text)
            return n.result;
    return AtResult::None;
}

size_t LineSplitter::feed(std::string_view text,
                          const std::function<bool(std::string_view)>& on_line) {
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\r' || c == '\n') {
            if (!partial_.empty()) {
                std::string line = std::move(partial_);
                partial_.clear();
                if (!on_line(line))
                    return i + 1;
            }
            continue;
        }
        // A modem that never ends its line must not grow us without bound.
        if (partial_.size() < kMaxLine)
            partial_ += c;
    }
    return text.size();
}

void AtExchange::queue(std::string command, std::initializer_list<AtResult> accept,
                       std::chrono::milliseconds timeout, Done done) {
    waiting_.push_back(Step{std::move(command), accept, timeout, std::move(done), {}, {}});
}

void AtExchange::expect_first(std::initializer_list<AtResult> accept,
                              std::chrono::milliseconds timeout, Done done) {
    waiting_.push_front(Step{std::string(), accept, timeout, std::move(done), {}, {}});
}

void AtExchange::hold(bool on, Clock::time_point now) {
    held_ = on;
    send_next(now);
}

void AtExchange::send_next(Clock::time_point now) {
    // An expectation is not held back: it sends nothing.
    while (!current_ && !waiting_.empty() && (!held_ || waiting_.front().command.empty())) {
        current_ = std::move(waiting_.front());
        waiting_.pop_front();
        current_->deadline = now + current_->timeout;
        if (!current_->command.empty())
            write_(current_->command + "\r");
    }
}

void AtExchange::finish(AtOutcome outcome, Clock::time_point now) {
    Step step = std::move(*current_);
    current_.reset();
    outcome.info = std::move(step.info);
    // The continuation may queue more; it runs before the next is sent, so
    // what it queues first can go ahead of nothing already waiting.
    if (step.done)
        step.done(outcome);
    send_next(now);
}

bool AtExchange::on_line(std::string_view line, Clock::time_point now) {
    if (!current_)
        return false;
    const AtResult r = classify_result(line);
    if (r == AtResult::None) {
        std::string_view t = trim(line);
        // The modem's echo of the command (before echo is switched off).
        if (!current_->command.empty() && t.size() >= 2 &&
            toupper(static_cast<unsigned char>(t[0])) == 'A' &&
            toupper(static_cast<unsigned char>(t[1])) == 'T')
            return true;
        current_->info.emplace_back(t);
        return true;
    }
    AtOutcome outcome;
    outcome.result = r;
    const auto& acc = current_->accept;
    outcome.kind = std::find(acc.begin(), acc.end(), r) != acc.end() ? AtOutcome::Kind::Accepted
                                                                     : AtOutcome::Kind::Refused;
    finish(std::move(outcome), now);
    return true;
}

void AtExchange::on_time(Clock::time_point now) {
    if (current_ && current_->deadline <= now) {
        AtOutcome outcome;
        outcome.kind = AtOutcome::Kind::TimedOut;
        finish(std::move(outcome), now);
    }
}

std::optional<Clock::time_point> AtExchange::next_deadline() const {
    if (current_)
        return current_->deadline;
    return std::nullopt;
}

}  // namespace v253
