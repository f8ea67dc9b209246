#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

namespace brim {

/// Polled by long work; true means stop and hand back what was found so far.
using IsCancelled = std::function<bool()>;
/// Told how far long work has come, from 0 to 1, on whatever thread does the work.
using Progress = std::function<void(double fraction)>;

/// A named queue that runs its jobs one after another on one thread of its own, in the order they
/// were added. Each job gets an `IsCancelled` that turns true when `cancelAll` is called or the
/// queue is being destroyed. Destruction waits for the running job and drops the rest.
class SerialQueue {
public:
    using Job = std::function<void(const IsCancelled& isCancelled)>;

    explicit SerialQueue(std::string name);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    /// Adds a job at the end of the queue.
    void async(Job job);

    /// Adds a job and waits until it has run. Must not be called from the queue's own thread.
    void sync(const Job& job);

    /// Drops the jobs that have not started and asks the running one to stop.
    void cancelAll();

    /// Waits until every job added so far has run.
    void drain();

    [[nodiscard]] const std::string& name() const { return name_; }

private:
    void run(const std::stop_token& stop);

    std::string name_;
    std::mutex lock_;
    std::condition_variable_any wake_;
    std::condition_variable_any idle_;
    std::deque<Job> jobs_;              // guarded by lock_
    std::size_t generation_ = 0;        // guarded by lock_; grows with each cancelAll
    bool running_ = false;              // guarded by lock_
    std::jthread thread_;               // last: starts after the fields above exist
};

/// The main queue: where documents, views and observers live. The window's event loop implements
/// it; terminal commands and tests use `MainQueue::Manual`, pumped by hand.
namespace MainQueue {

using Poster = std::function<void(std::function<void()>)>;

/// Installs the function that carries work to the main thread (the window's event loop does this).
void install(Poster poster);

/// Carries `work` to the main thread. With nothing installed the work waits in the manual queue.
void post(std::function<void()> work);

/// Runs what has been posted to the manual queue, including what that work posts, until it is
/// empty. Returns the number of jobs run. Only for the thread that acts as main.
std::size_t pump();

} // namespace MainQueue

} // namespace brim
