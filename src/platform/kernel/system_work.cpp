// System worker threads.
#include "platform/kernel/process.h"
#include "platform/kernel/verifier.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace platform {

namespace {

/// Work that waits for other work needs a further worker to run that; this many may wait.
constexpr std::size_t kMostWorkers = 8;

class WorkQueue {
public:
    ~WorkQueue() {
        {
            const std::lock_guard guard(lock_);
            stopping_ = true;
        }
        changed_.notify_all();
        for (std::thread& worker : workers_) {
            worker.join();
        }
    }

    void Queue(std::function<void()> work) {
        {
            const std::lock_guard guard(lock_);
            queue_.push_back(std::move(work));
            if (idle_ < queue_.size() && workers_.size() < kMostWorkers) {
                workers_.emplace_back([this] { Work(); });
            }
        }
        changed_.notify_one();
    }

    void Drain() {
        std::unique_lock guard(lock_);
        drained_.wait(guard, [this] { return queue_.empty() && running_ == 0; });
    }

private:
    void Work() {
        std::unique_lock guard(lock_);
        for (;;) {
            ++idle_;
            changed_.wait(guard, [this] { return stopping_ || !queue_.empty(); });
            --idle_;
            if (queue_.empty()) return;
            std::function<void()> work = std::move(queue_.front());
            queue_.pop_front();
            ++running_;
            guard.unlock();
            {
                const CallbackCheck check("system work");
                work();
                work = nullptr;
            }
            guard.lock();
            --running_;
            if (queue_.empty() && running_ == 0) drained_.notify_all();
        }
    }

    std::mutex lock_;
    std::condition_variable changed_;
    std::condition_variable drained_;
    std::deque<std::function<void()>> queue_;
    std::vector<std::thread> workers_;
    std::size_t idle_ = 0;
    std::size_t running_ = 0;
    bool stopping_ = false;
};

WorkQueue& Workers() {
    static WorkQueue queue;
    return queue;
}

}  // namespace

void QueueSystemWork(std::function<void()> work) {
    Workers().Queue(std::move(work));
}

void DrainSystemWork() {
    Workers().Drain();
}

}  // namespace platform
