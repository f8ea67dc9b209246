#include "common/SerialQueue.h"

#include <pthread.h>

#include <atomic>

namespace brim {

SerialQueue::SerialQueue(std::string name)
    : name_(std::move(name)), thread_([this](const std::stop_token& stop) { run(stop); }) {
    // Thread names are limited to 15 bytes.
    pthread_setname_np(thread_.native_handle(), name_.substr(0, 15).c_str());
}

SerialQueue::~SerialQueue() {
    cancelAll();
    thread_.request_stop();
    wake_.notify_all();
}

void SerialQueue::async(Job job) {
    {
        std::lock_guard guard(lock_);
        jobs_.push_back(std::move(job));
    }
    wake_.notify_all();
}

void SerialQueue::sync(const Job& job) {
    std::mutex doneLock;
    std::condition_variable done;
    bool finished = false;
    async([&](const IsCancelled& isCancelled) {
        job(isCancelled);
        std::lock_guard guard(doneLock);
        finished = true;
        done.notify_all();
    });
    std::unique_lock guard(doneLock);
    done.wait(guard, [&] { return finished; });
}

void SerialQueue::cancelAll() {
    std::lock_guard guard(lock_);
    jobs_.clear();
    ++generation_;
    idle_.notify_all();
}

void SerialQueue::drain() {
    std::unique_lock guard(lock_);
    idle_.wait(guard, [this] { return jobs_.empty() && !running_; });
}

void SerialQueue::run(const std::stop_token& stop) {
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
            running_ = true;
        }
        const IsCancelled isCancelled = [this, generation, stop] {
            if (stop.stop_requested()) return true;
            std::lock_guard guard(lock_);
            return generation_ != generation;
        };
        job(isCancelled);
        {
            std::lock_guard guard(lock_);
            running_ = false;
        }
        idle_.notify_all();
    }
}

namespace MainQueue {

namespace {

std::mutex lock;
Poster installed;                           // guarded by lock
std::deque<std::function<void()>> manual;   // guarded by lock

} // namespace

void install(Poster poster) {
    std::lock_guard guard(lock);
    installed = std::move(poster);
}

void post(std::function<void()> work) {
    Poster poster;
    {
        std::lock_guard guard(lock);
        if (!installed) {
            manual.push_back(std::move(work));
            return;
        }
        poster = installed;
    }
    poster(std::move(work));
}

std::size_t pump() {
    std::size_t ran = 0;
    while (true) {
        std::function<void()> work;
        {
            std::lock_guard guard(lock);
            if (manual.empty()) return ran;
            work = std::move(manual.front());
            manual.pop_front();
        }
        work();
        ++ran;
    }
}

} // namespace MainQueue

} // namespace brim
