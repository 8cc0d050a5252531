#pragma once

#include "task/ITask.h"
#include "task/ResumeRecord.h"

#include <quill_base/LockedFile.h>
#include <quill_network/HttpResponse.h>

#include <cstdint>
#include <memory>
#include <string>

namespace cloud {

// Downloads a request's url into a temporary file of its own (in the scheduler's cache directory
// when there is one, else beside the final path) and moves it to directory/fileName when it is
// complete. An image download from the static-content host that fails without a known status is
// rewritten to the image CDN host once and handed back for a retry.
//
// In the cache directory the temporary file gets a resume record beside it (ResumeRecord), held
// locked while the task runs: when the process dies, the next download of the same URL to the same
// final path, here or in another process, takes the file up and asks only for the rest. The record
// is made once the first reply is in, and only for a file of at least 1 MiB (or of
// unknown length): fetching a small file again costs less than keeping a record for every one. A
// record held by another download is left alone (that download then goes without one), and a
// record without a validator, or whose file is gone, is removed.
class DownloadTask : public ITask {
public:
  DownloadTask(const std::string& cachePath, int type, std::shared_ptr<CloudStorageRequest> request,
               std::shared_ptr<SerialQueue> queue, CompletionCallback completionCallback);
  ~DownloadTask() override;
  bool startWithConfig(CloudStorageConfig* config) override;
  void cancel() override;

  void startDownload();
  void processDownloadCompletion(int code, std::string desc);
  bool moveDownloadFile();

  // The result code for a transfer's end: 2, 3, -4 (400), -3 (403), -2 (404) or -100.
  static int resultCodeFor(const HttpResponse& response);

protected:
  void bytesMoved(std::int64_t done) override;

private:
  // Takes up the partial file a record names, or picks a new temporary file (whose record, if it
  // gets one, is made by noteValidator).
  void prepareResumeRecord(const std::string& finalPath);
  // Keeps the first reply's validator (and the bytes so far) in the record, making the record when
  // the file is worth one: `length` bytes (-1: unknown).
  void noteValidator(const std::string& validator, std::int64_t length);
  void writeRecord(std::int64_t bytes);
  // The download ended (or starts over elsewhere): its record goes.
  void dropRecord();

  std::string tempFilePath;
  // Where the record of this download goes; empty without a cache directory.
  std::string recordPath;
  std::unique_ptr<LockedFile> recordLock;
  ResumeRecord record;
  // The validator to take up tempFilePath with; empty for a new file.
  std::string resumeValidator;
  // The two hosts of the image retry, fixed when the task is made.
  std::string staticHost;
  std::string imageCdnHost;
};

}  // namespace cloud
