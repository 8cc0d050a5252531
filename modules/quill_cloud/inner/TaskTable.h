#pragma once

#include "task/ITask.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace cloud {

// The two directions a task moves files in; each has its own limit and its own waiting line.
enum class Direction : int { Download = 0, Upload = 1 };

Direction directionOf(const ITask& task);

// The scheduler's tasks, owned here in order of arrival, with the lookups the scheduler needs: by
// request id (and type), the next one waiting per direction, and how many run per direction. One
// object keeps every index in step, so that adding and removing a task is one call each. Lives on
// the scheduler's queue; nothing here is locked.
class TaskTable {
public:
  // Appends the task and puts it at the end of its direction's waiting line.
  void add(std::shared_ptr<ITask> task);
  // Removes the task from every index (it may still be held elsewhere); false when it was not here.
  bool remove(const ITask* task);

  bool contains(const ITask* task) const { return entries.count(task) != 0; }
  std::size_t size() const { return order.size(); }

  // The task of this request id and type; null when there is none.
  std::shared_ptr<ITask> find(const std::string& requestId, int type) const;
  // The tasks of this request id (of any type), in order of arrival.
  std::vector<std::shared_ptr<ITask>> withRequestId(const std::string& requestId) const;
  // Every task, in order of arrival.
  std::vector<std::shared_ptr<ITask>> all() const;

  // Takes the oldest task of the direction that is still here and still waiting off its line; null
  // when there is none. Tasks that ended or left meanwhile are dropped from the line on the way.
  std::shared_ptr<ITask> takeNextWaiting(Direction direction);
  // The task has been started (first start or a retry), or has stopped running.
  void markStarted(const ITask* task);
  void markStopped(const ITask* task);
  // Started tasks of the direction that are running now.
  std::size_t runningCount(Direction direction) const;

private:
  using Order = std::list<std::shared_ptr<ITask>>;
  struct Entry {
    Order::iterator position;
    std::string requestId;  // as it was when the task was added
    std::uint64_t arrival;
  };

  static int index(Direction direction) { return static_cast<int>(direction); }

  Order order;
  std::unordered_map<const ITask*, Entry> entries;
  std::unordered_map<std::string, std::vector<const ITask*>> byRequestId;
  std::deque<std::weak_ptr<ITask>> waiting[2];
  std::unordered_set<const ITask*> started[2];
  std::uint64_t arrivals = 0;
};

}  // namespace cloud
