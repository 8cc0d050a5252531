#pragma once

#include "Session.h"

#include <string>
#include <vector>

namespace quill_cli {

struct DownloadOptions {
  std::vector<std::string> urls;
  std::string directory = ".";
  std::string name;
  // --name was given (an empty one is refused).
  bool nameGiven = false;
  bool image = false;
  // A destination that exists already makes that URL fail, untouched, instead of being replaced.
  bool noClobber = false;
  // Cancel whatever is still running after this many seconds; 0: no limit.
  double timeoutSeconds = 0;
};

struct UploadOptions {
  std::vector<std::string> files;
  // 1 image, 2 file, 3 video
  int kind = 2;
  // Cancel whatever is still running after this many seconds; 0: no limit.
  double timeoutSeconds = 0;
};

struct AvatarOptions {
  std::vector<std::string> urls;
  // Default: "<user directory>/avatars"
  std::string root;
  std::string user = "local";
  double timeoutSeconds = 60;
};

struct DemoOptions {
  bool keep = false;
  // Cancel a step's transfers still running this many seconds after the demo started; 0: no limit.
  double timeoutSeconds = 0;
};

// Each returns the tool's exit status.
int runDownload(const CommonOptions& common, const DownloadOptions& options);
int runUpload(const CommonOptions& common, const UploadOptions& options);
int runAvatar(const CommonOptions& common, const AvatarOptions& options);
int runDemo(const CommonOptions& common, const DemoOptions& options);

}  // namespace quill_cli
