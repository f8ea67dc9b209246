#pragma once

#include "common/SerialQueue.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace brim {

/// A named queue that runs at most `width` jobs at a time, each on one of its own threads, starting
/// them in the order they were added. Each job gets an `IsCancelled` that turns true when
/// `cancelAll` is called or the queue is being destroyed. Destruction waits for the running jobs
/// and drops the rest.
class ConcurrentQueue {
public:
    using Job = std::function<void(const IsCancelled& isCancelled)>;

    ConcurrentQueue(std::string name, std::size_t width);
    ~ConcurrentQueue();
    ConcurrentQueue(const ConcurrentQueue&) = delete;
    ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

    /// Adds a job at the end of the queue.
    void async(Job job);

    /// Drops the jobs that have not started and asks the running ones to stop.
    void cancelAll();

    /// Waits until every job added so far has run.
    void drain();

    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] std::size_t width() const { return threads_.size(); }

private:
    void run(const std::stop_token& stop);

    std::string name_;
    std::mutex lock_;
    std::condition_variable_any wake_;
    std::condition_variable_any idle_;
    std::deque<Job> jobs_;          // guarded by lock_
    std::size_t generation_ = 0;    // guarded by lock_; grows with each cancelAll
    std::size_t running_ = 0;       // guarded by lock_
    std::vector<std::jthread> threads_;   // last: they start after the fields above exist
};

} // namespace brim
