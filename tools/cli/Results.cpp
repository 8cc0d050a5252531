#include "Results.h"

#include "Display.h"
#include "Session.h"

#include <quill_base/FileUtils.h>

#include <json/json.h>

#include <cmath>
#include <cstdio>

namespace quill_cli {

std::string failureReason(const TransferState& state) {
  if (state.timedOut) {
    return "timed out" + (state.cause.empty() || state.cause == "cancelled"
                              ? std::string()
                              : " (" + state.cause + ")");
  }
  return state.cause.empty() ? state.message : state.cause;
}

Json::Value timelineJson(const CloudStorageTimeline& timeline) {
  // Milliseconds to the microsecond; a step that did not happen is null.
  const auto step = [](double ms) {
    return ms < 0 ? Json::Value() : Json::Value(std::round(ms * 1000.0) / 1000.0);
  };
  Json::Value value(Json::objectValue);
  value["method"] = timeline.method;
  value["host"] = timeline.host;
  value["httpVersion"] = timeline.httpVersion;
  value["status"] = timeline.httpStatus;
  value["bytes"] = static_cast<Json::Int64>(timeline.bytes);
  value["resumes"] = timeline.resumes;
  value["resolveMs"] = step(timeline.resolveMs);
  value["connectMs"] = step(timeline.connectMs);
  value["tlsMs"] = step(timeline.tlsMs);
  value["firstByteMs"] = step(timeline.firstByteMs);
  value["endMs"] = step(timeline.endMs);
  value["bytesPerSecond"] = std::round(timeline.bytesPerSecond);
  value["cause"] = timeline.cause;
  return value;
}

std::string toJsonLine(const TransferState& state) {
  Json::Value value(Json::objectValue);
  value["operation"] = state.operation;
  value["kind"] = state.kind;
  value["source"] = state.source;
  value["code"] = state.code;
  value["ok"] = state.succeeded();
  value["message"] =
      state.message.empty() && !state.succeeded() ? describeCode(state.code) : state.message;
  value["cause"] = state.succeeded() ? std::string() : failureReason(state);
  value["url"] = state.url;
  // A failed download's destination, when something is there, is not this download's file.
  const bool ownsPath = state.succeeded() || state.operation != "download";
  if (ownsPath && !state.path.empty() && FileUtils::fileExists(state.path)) {
    value["path"] = state.path;
  }
  value["route"] = state.route;
  value["bytes"] = static_cast<Json::Int64>(state.bytes);
  value["seconds"] = std::round(state.seconds() * 1000.0) / 1000.0;
  if (!state.timeline.method.empty()) {
    value["timeline"] = timelineJson(state.timeline);
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  // Three decimals: the seconds to the millisecond, and no 0.12300000000000001.
  builder["precision"] = 3;
  builder["precisionType"] = "decimal";
  return Json::writeString(builder, value);
}

bool Reporter::announce(const TransferState& state) {
  failed = failed || !state.succeeded();
  if (json) {
    std::printf("%s\n", toJsonLine(state).c_str());
    std::fflush(stdout);
    return false;
  }
  if (state.succeeded()) {
    std::printf("%s\n", (state.operation == "upload" ? state.url : state.path).c_str());
    std::fflush(stdout);
    return false;
  }
  const auto reason = failureReason(state);
  std::fprintf(stderr, "quill-cloud: %s %s failed: result %d (%s)%s%s\n", state.operation.c_str(),
               state.source.c_str(), state.code, describeCode(state.code).c_str(),
               reason.empty() ? "" : ": ", reason.c_str());
  std::fflush(stderr);
  return true;
}

int Reporter::exitStatus(bool interrupted) const {
  if (interrupted) {
    std::fprintf(stderr, "quill-cloud: interrupted; every transfer was cancelled\n");
    return kExitInterrupted;
  }
  return failed ? kExitFailed : kExitOk;
}

}  // namespace quill_cli
