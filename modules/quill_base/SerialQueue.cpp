#include <quill_base/SerialQueue.h>

#include <quill_base/Logger.h>
#include <quill_base/ThreadUtils.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <queue>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

template <typename Fn>
void runGuarded(const std::string& queueName, Fn&& fn) {
  try {
    fn();
  } catch (const std::exception& e) {
    QLOG_ERROR("closure on queue " << queueName << " threw: " << e.what());
  } catch (...) {
    QLOG_ERROR("closure on queue " << queueName << " threw a non-standard exception");
  }
}

}  // namespace

// Everything the worker thread touches. Shared between the queue object and the thread so that the
// thread can outlive the object when the last owner lets go from a closure on the queue itself.
struct SerialQueue::State {
  struct Timer {
    std::uint64_t intervalMs;
    std::shared_ptr<std::function<void(TimerId)>> tick;
    Clock::time_point due;
  };
  using DueEntry = std::pair<Clock::time_point, TimerId>;

  explicit State(std::string queueName) : name(std::move(queueName)) {}

  const std::string name;
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::function<void()>> tasks;
  std::unordered_map<TimerId, Timer> timers;
  // Earliest due time first. Entries of stopped timers stay until they reach the top and are
  // skipped there; a live timer has exactly one entry.
  std::priority_queue<DueEntry, std::vector<DueEntry>, std::greater<DueEntry>> dueOrder;
  TimerId lastTimerId = 0;
  bool stopping = false;
  std::thread worker;

  void run();
};

void SerialQueue::State::run() {
  ThreadUtils::setCurrentThreadName(name);
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    while (!dueOrder.empty() && timers.find(dueOrder.top().second) == timers.end()) {
      dueOrder.pop();
    }

    const auto now = Clock::now();
    if (!dueOrder.empty() && dueOrder.top().first <= now) {
      const TimerId id = dueOrder.top().second;
      dueOrder.pop();
      auto tick = timers.at(id).tick;
      lock.unlock();
      runGuarded(name, [&] { (*tick)(id); });
      tick.reset();
      lock.lock();
      auto it = timers.find(id);
      if (it != timers.end()) {
        auto& timer = it->second;
        timer.due += std::chrono::milliseconds(timer.intervalMs);
        const auto afterTick = Clock::now();
        if (timer.due <= afterTick) {
          timer.due = afterTick + std::chrono::milliseconds(timer.intervalMs);
        }
        dueOrder.emplace(timer.due, id);
      }
      continue;
    }

    if (!tasks.empty()) {
      auto task = std::move(tasks.front());
      tasks.pop_front();
      lock.unlock();
      runGuarded(name, task);
      // Destroy what the closure captured before taking the lock again: its destructors may
      // dispatch.
      task = nullptr;
      lock.lock();
      continue;
    }

    if (dueOrder.empty()) {
      wake.wait(lock);
    } else {
      // A copy: wait_until reads its deadline again after waking, and startTimer may have grown
      // dueOrder's storage in the meantime.
      const auto nextDue = dueOrder.top().first;
      wake.wait_until(lock, nextDue);
    }
  }

  // Discarded work is destroyed outside the lock, for the same reason.
  auto discardedTasks = std::move(tasks);
  auto discardedTimers = std::move(timers);
  tasks.clear();
  timers.clear();
  lock.unlock();
}

SerialQueue::SerialQueue(const std::string& name) : state(std::make_shared<State>(name)) {
  state->worker = std::thread([s = state] { s->run(); });
}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->stopping = true;
  }
  state->wake.notify_all();
  if (std::this_thread::get_id() == state->worker.get_id()) {
    // Released by a closure of this very queue: the worker ends by itself once that closure
    // returns.
    state->worker.detach();
  } else if (state->worker.joinable()) {
    state->worker.join();
  }
}

const std::string& SerialQueue::name() const {
  return state->name;
}

void SerialQueue::dispatch(std::function<void()> task) {
  if (!task) {
    return;
  }
  std::function<void()> refused;
  // The closure may release the last owner of this queue as soon as the worker can take it, so
  // nothing of the queue object is touched once the lock is released; the shared state stays alive
  // through this copy. Notifying after the unlock spares the woken worker a wait for the mutex.
  const std::shared_ptr<State> shared = state;
  {
    std::lock_guard<std::mutex> lock(shared->mutex);
    if (shared->stopping) {
      refused = std::move(task);  // destroyed after the lock is released
      return;
    }
    shared->tasks.push_back(std::move(task));
  }
  shared->wake.notify_one();
}

SerialQueue::TimerId SerialQueue::startTimer(std::uint64_t intervalMs,
                                             std::function<void(TimerId)> tick) {
  if (!tick) {
    return 0;
  }
  auto shared = std::make_shared<std::function<void(TimerId)>>(std::move(tick));
  std::lock_guard<std::mutex> lock(state->mutex);
  if (state->stopping) {
    return 0;
  }
  const TimerId id = ++state->lastTimerId;
  const auto due = Clock::now() + std::chrono::milliseconds(intervalMs);
  state->timers.emplace(id, State::Timer{intervalMs, std::move(shared), due});
  state->dueOrder.emplace(due, id);
  state->wake.notify_one();
  return id;
}

void SerialQueue::stopTimer(TimerId id) {
  std::shared_ptr<std::function<void(TimerId)>> released;
  std::lock_guard<std::mutex> lock(state->mutex);
  auto it = state->timers.find(id);
  if (it != state->timers.end()) {
    released = std::move(it->second.tick);
    state->timers.erase(it);
  }
  // The worker skips a stopped timer's entry in dueOrder, so it need not be woken. `released`,
  // declared before the guard, destroys the tick function after the mutex is unlocked.
}

bool SerialQueue::isCurrentQueue() const {
  return std::this_thread::get_id() == state->worker.get_id();
}
