// A first-in first-out queue of frame slots between two stages of a stream. Each slot is in one
// queue or one stage at a time, so a queue never holds more than the slots there are: pushing
// never waits, and the number of slots is the memory bound of the whole stream.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

namespace kv_tool {

class slot_queue {
  public:
    void push(size_t slot) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            slots_.push_back(slot);
        }
        changed_.notify_one();
    }

    // Waits for the next slot. False when the queue was closed and is empty, or was aborted.
    bool pop(size_t* slot) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return aborted_ || closed_ || !slots_.empty(); });
        if (aborted_ || slots_.empty()) return false;
        *slot = slots_.front();
        slots_.pop_front();
        return true;
    }

    // No more slots will come: the stage after it drains what is queued, then stops.
    void close() { end(&closed_); }
    // The run is over: every waiter returns at once, queued slots are dropped.
    void abort() { end(&aborted_); }

  private:
    void end(bool* flag) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            *flag = true;
        }
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<size_t> slots_;
    bool closed_ = false, aborted_ = false;
};

}  // namespace kv_tool
