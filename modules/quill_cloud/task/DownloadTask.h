#pragma once

#include "task/ITask.h"

#include <quill_network/HttpResponse.h>

#include <memory>
#include <string>

namespace cloud {

// Downloads a request's url into a temporary file of its own (in the scheduler's cache directory
// when there is one, else beside the final path) and moves it to directory/fileName when it is
// complete. An image download from the static-content host that fails without a known status is
// rewritten to the image CDN host once and handed back for a retry.
class DownloadTask : public ITask {
public:
  DownloadTask(const std::string& cachePath, int type, std::shared_ptr<CloudStorageRequest> request,
               std::shared_ptr<SerialQueue> queue, CompletionCallback completionCallback);
  bool startWithConfig(CloudStorageConfig* config) override;
  void cancel() override;

  void startDownload();
  void processDownloadCompletion(int code, std::string desc);
  bool moveDownloadFile();

  // The result code for a transfer's end: 2, 3, -4 (400), -3 (403), -2 (404) or -100.
  static int resultCodeFor(const HttpResponse& response);

private:
  std::string tempFilePath;
  // The two hosts of the image retry, fixed when the task is made.
  std::string staticHost;
  std::string imageCdnHost;
};

}  // namespace cloud
