#include "common/Parallel.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace brim {

namespace {

/// One parallel loop: iterations are claimed through `next`, and `done` counts finished ones.
struct Loop {
    std::size_t count = 0;
    const std::function<void(std::size_t)>* body = nullptr;
    std::atomic<std::size_t> next{0};
    std::atomic<std::size_t> done{0};
    std::mutex finishedLock;
    std::condition_variable finished;

    /// Claims and runs iterations until none is left.
    void work() {
        std::size_t ran = 0;
        for (std::size_t i = next.fetch_add(1); i < count; i = next.fetch_add(1)) {
            (*body)(i);
            ++ran;
        }
        if (ran > 0 && done.fetch_add(ran) + ran == count) {
            std::lock_guard guard(finishedLock);
            finished.notify_all();
        }
    }
};

class Pool {
public:
    Pool() {
        const std::size_t helpers = activeProcessorCount() - 1;
        for (std::size_t i = 0; i < helpers; ++i) {
            threads_.emplace_back([this](const std::stop_token& stop) { run(stop); });
        }
    }
    ~Pool() {
        for (auto& thread : threads_) thread.request_stop();
        {
            std::lock_guard guard(lock_);
        }
        wake_.notify_all();
    }
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    void submit(const std::shared_ptr<Loop>& loop) {
        {
            std::lock_guard guard(lock_);
            loops_.push_back(loop);
        }
        wake_.notify_all();
    }

private:
    void run(const std::stop_token& stop) {
        while (true) {
            std::shared_ptr<Loop> loop;
            {
                std::unique_lock guard(lock_);
                wake_.wait(guard, stop, [this] { return !loops_.empty(); });
                if (stop.stop_requested()) return;
                loop = loops_.front();
                // A loop whose iterations are all claimed leaves the queue.
                if (loop->next.load() >= loop->count) {
                    loops_.pop_front();
                    continue;
                }
            }
            loop->work();
        }
    }

    std::mutex lock_;
    std::condition_variable_any wake_;
    std::deque<std::shared_ptr<Loop>> loops_; // guarded by lock_
    std::vector<std::jthread> threads_;
};

Pool& pool() {
    static Pool shared;
    return shared;
}

} // namespace

std::size_t activeProcessorCount() {
    return std::max<std::size_t>(1, std::thread::hardware_concurrency());
}

void parallelFor(std::size_t count, const std::function<void(std::size_t)>& body) {
    if (count == 0) return;
    if (count == 1 || activeProcessorCount() == 1) {
        for (std::size_t i = 0; i < count; ++i) body(i);
        return;
    }
    auto loop = std::make_shared<Loop>();
    loop->count = count;
    loop->body = &body;
    pool().submit(loop);
    loop->work();
    std::unique_lock guard(loop->finishedLock);
    loop->finished.wait(guard, [&] { return loop->done.load() == count; });
}

} // namespace brim
