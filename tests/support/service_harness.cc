#include "service_harness.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <stdexcept>

#include "core/event_loop.h"

namespace kal::test {

ServiceHarness::ServiceHarness(SpokesmanOptions options)
    : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_)
        throw std::runtime_error("eventfd failed");
    std::promise<void> started;
    auto ready = started.get_future();
    thread_ = std::thread([this, options, &started] { serve(options, started); });
    ready.wait();
}

ServiceHarness::~ServiceHarness() {
    run([this](KALSpokesman&) { sd_event_exit(loop_, 0); });
    thread_.join();
}

void ServiceHarness::serve(SpokesmanOptions options, std::promise<void>& started) {
    sd_event* raw = nullptr;
    if (sd_event_new(&raw) < 0)
        std::abort();
    EventPtr loop(raw);
    loop_ = raw;
    spokesman_ = std::make_unique<KALSpokesman>(options);
    spokesman_->startServing(raw);
    sd_event_source* source = nullptr;
    if (sd_event_add_io(raw, &source, wake_.get(), EPOLLIN, onTask, this) < 0)
        std::abort();
    EventSourcePtr task_source(source);
    started.set_value();
    sd_event_loop(raw);
    // The server's sd-bus objects go on the thread that used them.
    spokesman_.reset();
}

int ServiceHarness::onTask(sd_event_source*, int, uint32_t, void* userdata) {
    auto* self = static_cast<ServiceHarness*>(userdata);
    uint64_t count;
    ssize_t ignored = ::read(self->wake_.get(), &count, sizeof count);
    (void)ignored;
    std::deque<std::function<void()>> tasks;
    {
        std::lock_guard lock(self->mutex_);
        tasks.swap(self->tasks_);
    }
    for (auto& task : tasks)
        task();
    return 0;
}

void ServiceHarness::run(const std::function<void(KALSpokesman&)>& fn) {
    std::promise<void> done;
    auto finished = done.get_future();
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back([&] {
            try {
                fn(*spokesman_);
                done.set_value();
            } catch (...) {
                done.set_exception(std::current_exception());
            }
        });
    }
    const uint64_t one = 1;
    ssize_t ignored = ::write(wake_.get(), &one, sizeof one);
    (void)ignored;
    finished.get();
}

}  // namespace kal::test
