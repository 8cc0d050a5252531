#pragma once

#include "Session.h"

#include <string>
#include <vector>

namespace quill_cli {

struct DownloadOptions {
  std::vector<std::string> urls;
  std::string directory = ".";
  std::string name;
  bool image = false;
};

struct UploadOptions {
  std::vector<std::string> files;
  // 1 image, 2 file, 3 video
  int kind = 2;
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
};

// Each returns the tool's exit status.
int runDownload(const CommonOptions& common, const DownloadOptions& options);
int runUpload(const CommonOptions& common, const UploadOptions& options);
int runAvatar(const CommonOptions& common, const AvatarOptions& options);
int runDemo(const CommonOptions& common, const DemoOptions& options);

// Prints the results of a command: with --json one JSON object per transfer on standard output;
// otherwise the URL (uploads) or path (downloads, avatars) of each success on standard output and
// each failure's code and message on standard error. Returns the exit status they make.
int reportResults(const CommonOptions& common, const TransferList& transfers, bool interrupted);

}  // namespace quill_cli
