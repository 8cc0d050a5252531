#include "inner/TaskTable.h"

#include <algorithm>
#include <utility>

namespace cloud {

Direction directionOf(const ITask& task) {
  return task.isUpload() ? Direction::Upload : Direction::Download;
}

void TaskTable::add(std::shared_ptr<ITask> task) {
  if (!task || contains(task.get())) {
    return;
  }
  const ITask* key = task.get();
  const auto request = task->getRequest();
  std::string requestId = request ? request->requestId : std::string();
  waiting[index(directionOf(*task))].push_back(task);
  order.push_back(std::move(task));
  byRequestId[requestId].push_back(key);
  entries.emplace(key, Entry{std::prev(order.end()), std::move(requestId), ++arrivals});
}

bool TaskTable::remove(const ITask* task) {
  const auto entry = entries.find(task);
  if (entry == entries.end()) {
    return false;
  }
  const auto ids = byRequestId.find(entry->second.requestId);
  if (ids != byRequestId.end()) {
    auto& list = ids->second;
    list.erase(std::remove(list.begin(), list.end(), task), list.end());
    if (list.empty()) {
      byRequestId.erase(ids);
    }
  }
  for (auto& set : started) {
    set.erase(task);
  }
  // Its place in a waiting line goes when it reaches the front (the line holds it weakly).
  order.erase(entry->second.position);
  entries.erase(entry);
  return true;
}

std::shared_ptr<ITask> TaskTable::find(const std::string& requestId, int type) const {
  const auto found = byRequestId.find(requestId);
  if (found == byRequestId.end()) {
    return nullptr;
  }
  for (const ITask* task : found->second) {
    if (task->type() == type) {
      return *entries.at(task).position;
    }
  }
  return nullptr;
}

std::vector<std::shared_ptr<ITask>> TaskTable::withRequestId(const std::string& requestId) const {
  std::vector<std::shared_ptr<ITask>> result;
  const auto found = byRequestId.find(requestId);
  if (found == byRequestId.end()) {
    return result;
  }
  std::vector<std::pair<std::uint64_t, std::shared_ptr<ITask>>> arrived;
  for (const ITask* task : found->second) {
    const auto& entry = entries.at(task);
    arrived.emplace_back(entry.arrival, *entry.position);
  }
  std::sort(arrived.begin(), arrived.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  for (auto& [arrival, task] : arrived) {
    result.push_back(std::move(task));
  }
  return result;
}

std::vector<std::shared_ptr<ITask>> TaskTable::all() const {
  return {order.begin(), order.end()};
}

std::shared_ptr<ITask> TaskTable::takeNextWaiting(Direction direction) {
  auto& line = waiting[index(direction)];
  while (!line.empty()) {
    auto task = line.front().lock();
    line.pop_front();
    if (task && task->state() == CloudStorageState::kWaiting && contains(task.get())) {
      return task;
    }
  }
  return nullptr;
}

void TaskTable::markStarted(const ITask* task) {
  if (contains(task)) {
    started[index(directionOf(*task))].insert(task);
  }
}

void TaskTable::markStopped(const ITask* task) {
  for (auto& set : started) {
    set.erase(task);
  }
}

std::size_t TaskTable::runningCount(Direction direction) const {
  const auto& set = started[index(direction)];
  return static_cast<std::size_t>(std::count_if(set.begin(), set.end(), [](const ITask* task) {
    return task->state() == CloudStorageState::kRunning;
  }));
}

}  // namespace cloud
