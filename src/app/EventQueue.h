// The main thread's application event queue: any thread (a signal handler included) posts
// (event code, parameter) pairs; the main loop takes them most urgent key first, in posting order
// within a key, and hands each to the one registered handler.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <utility>

#include "threadfunc.h"

class EventQueue {
  public:
    using Handler = void (*)(std::int32_t code, std::int32_t parameter);
    // Events that may be pending at once; a poster beyond it waits for the consumer.
    static constexpr std::uint32_t kCapacity = 10000;

    EventQueue() = default;
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    // Queues the event under `key`; false (nothing queued) for a key above 0. Blocks while
    // kCapacity events are pending.
    bool postEvent(std::int32_t key, std::int32_t code, std::int32_t parameter);
    // Waits for an event and dispatches it on the calling thread (code 0 is consumed without a
    // call); always true.
    bool processNextEvent();
    // Replaces the handler (null drops events).
    void setEventHandler(Handler handler);

  private:
    using Event = std::pair<std::int32_t, std::int32_t>;
    std::map<std::uint32_t, std::deque<Event>> table_;  // keys ordered unsigned
    threadfunc::mutex tableLock_;
    threadfunc::queue_template<int> pending_{kCapacity};  // one token per pending event
    std::atomic<Handler> handler_{nullptr};
};

// The process-wide queue the daemon runs on, and its operations.
EventQueue& applicationEvents();
void initEventQueue();  // nothing to do: the queue is complete after static construction
bool postEvent(std::int32_t key, std::int32_t code, std::int32_t parameter);
bool processNextEvent();
void setEventHandler(EventQueue::Handler handler);
