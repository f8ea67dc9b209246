#include "compare/ConcurrentQueue.h"

#include <pthread.h>

#include <algorithm>

namespace brim {

ConcurrentQueue::ConcurrentQueue(std::string name, std::size_t width) : name_(std::move(name)) {
    const std::size_t count = std::max<std::size_t>(width, 1);
    for (std::size_t i = 0; i < count; ++i) {
        threads_.emplace_back([this](const std::stop_token& stop) { run(stop); });
        // Thread names are limited to 15 bytes.
        pthread_setname_np(threads_.back().native_handle(), name_.substr(0, 15).c_str());
    }
}

ConcurrentQueue::~ConcurrentQueue() {
    cancelAll();
    for (auto& thread : threads_) thread.request_stop();
    wake_.notify_all();
    threads_.clear();   // joins, while the fields the threads use still exist
}

void ConcurrentQueue::async(Job job) {
    {
        std::lock_guard guard(lock_);
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
}

void ConcurrentQueue::cancelAll() {
    std::lock_guard guard(lock_);
    jobs_.clear();
    ++generation_;
    idle_.notify_all();
}

void ConcurrentQueue::drain() {
    std::unique_lock guard(lock_);
    idle_.wait(guard, [this] { return jobs_.empty() && running_ == 0; });
}

void ConcurrentQueue::run(const std::stop_token& stop) {
    while (true) {
        Job job;
        std::size_t generation = 0;
        {
            std::unique_lock guard(lock_);
            wake_.wait(guard, stop, [this] { return !jobs_.empty(); });
            if (stop.stop_requested()) return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
            generation = generation_;
            ++running_;
        }
        const IsCancelled isCancelled = [this, generation, stop] {
            if (stop.stop_requested()) return true;
            std::lock_guard guard(lock_);
            return generation_ != generation;
        };
        job(isCancelled);
        {
            std::lock_guard guard(lock_);
            --running_;
        }
        idle_.notify_all();
    }
}

} // namespace brim
