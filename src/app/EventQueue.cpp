#include "EventQueue.h"

#include <signal.h>

namespace {

// The daemon's SIGINT/SIGTERM handler posts events on the main thread, which also takes events out.
// While a thread holds the table lock its signals wait, so that a handler can never find the lock
// held by the very thread it interrupted.
class SignalsHeld {
  public:
    SignalsHeld() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &previous_);  // cannot fail with a valid how and set
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

  private:
    sigset_t previous_{};
};

}  // namespace

bool EventQueue::postEvent(std::int32_t key, std::int32_t code, std::int32_t parameter) {
    // Only key 0 is a valid level; the signed test also lets negative keys through, which the
    // unsigned map order then serves after key 0.
    if (key > 0) {
        return false;
    }
    const SignalsHeld held;
    tableLock_.lock();
    table_[static_cast<std::uint32_t>(key)].emplace_back(code, parameter);
    // The token goes in under the table lock after the pair, so a woken consumer always finds a pair.
    pending_.push(0);
    tableLock_.unlock();
    return true;
}

bool EventQueue::processNextEvent() {
    (void)pending_.pop();  // releases a slot before the table lock is taken: no deadlock with posters
    Event event{0, 0};
    {
        const SignalsHeld held;
        tableLock_.lock();
        for (auto& entry : table_) {
            if (!entry.second.empty()) {
                event = entry.second.front();
                entry.second.pop_front();
                break;
            }
        }
        tableLock_.unlock();
    }
    const Handler handler = handler_.load();
    if (handler != nullptr && event.first != 0) {
        handler(event.first, event.second);
    }
    return true;
}

void EventQueue::setEventHandler(Handler handler) {
    handler_.store(handler);
}

namespace {
// Built during static initialisation, before main, so that the first poster (possibly a signal
// handler) never has to construct it.
EventQueue theApplicationEvents;
}  // namespace

EventQueue& applicationEvents() {
    return theApplicationEvents;
}

void initEventQueue() {}

bool postEvent(std::int32_t key, std::int32_t code, std::int32_t parameter) {
    return applicationEvents().postEvent(key, code, parameter);
}

bool processNextEvent() {
    return applicationEvents().processNextEvent();
}

void setEventHandler(EventQueue::Handler handler) {
    applicationEvents().setEventHandler(handler);
}
