// quill-cloud: downloads, uploads and avatars from the command line, through the library's exported
// classes as any host would use them, and the demo that runs the whole mission against a local
// reference file service.
#include "Commands.h"
#include "Platform.h"
#include "StopRequests.h"
#include "UserDirs.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

#if defined(_WIN32)
const char* const kFiles =
    "Files: the library's cache in %LOCALAPPDATA%\\quill-cloud\\cache (--user-dir replaces\n"
    "it); its log in %LOCALAPPDATA%\\quill-cloud\\log\\quill-cloud.log, rolled over at 5 MiB,\n"
    "3 older files kept; --verbose sends the log to standard error. `quill-cloud paths` prints\n"
    "both.\n";
const char* const kSetHome = "set LOCALAPPDATA";
const char* const kUserDirDefault = "%LOCALAPPDATA%\\quill-cloud\\cache";
#else
const char* const kFiles =
    "Files: the library's cache in $XDG_CACHE_HOME/quill-cloud (default ~/.cache/quill-cloud;\n"
    "--user-dir replaces it); its log in $XDG_STATE_HOME/quill-cloud/quill-cloud.log (default\n"
    "~/.local/state/quill-cloud), rolled over at 5 MiB, 3 older files kept; --verbose sends the\n"
    "log to standard error. Relative XDG values are ignored; without HOME the home directory\n"
    "comes from the password database. `quill-cloud paths` prints both.\n";
const char* const kSetHome = "set HOME, or XDG_CACHE_HOME and XDG_STATE_HOME";
const char* const kUserDirDefault = "$XDG_CACHE_HOME/quill-cloud, else ~/.cache/quill-cloud";
#endif

const char* const kIdentity =
    "quill-cloud: moves files to and from the file service with the quill_cloud library.\n"
    "\n"
    "Identity: --app-id, --aid, --pin or QUILL_APP_ID, QUILL_AID, QUILL_PIN (uploads need all\n"
    "three). Endpoints: QUILL_FILE_SERVICE_HOST, QUILL_STATIC_HOST, QUILL_IMAGE_CDN_HOST,\n"
    "QUILL_PRE_FILE_SERVICE_HOST (host or host:port), QUILL_CA_BUNDLE (trusted CAs, PEM).\n";
const char* const kExitStatus =
    "\n"
    "Exit status: 0 all succeeded, 1 a transfer failed or timed out, 2 usage error, 130\n"
    "interrupted.";

// Parses the command line and runs the command; its transfers and service have ended when it
// returns.
int runCommandLine(int argc, char** argv) {
  quill_cli::CommonOptions common;
  common.appId = environment("QUILL_APP_ID");
  common.aid = environment("QUILL_AID");
  common.pin = environment("QUILL_PIN");

  CLI::App app{std::string(kIdentity) + kFiles + kExitStatus, "quill-cloud"};
  app.require_subcommand(1);
  app.fallthrough();
  app.set_version_flag("--version", std::string("quill-cloud ") + QUILL_VERSION);
  app.add_option("--app-id", common.appId, "Application id (QUILL_APP_ID)");
  app.add_option("--aid", common.aid, "Account id (QUILL_AID)");
  app.add_option("--pin", common.pin, "User pin (QUILL_PIN)");
  app.add_option("--user-dir", common.userDirectory,
                 std::string("The library's user directory (its cache, the default avatar root); "
                             "default ") +
                     kUserDirDefault);
  app.add_flag("--json", common.json,
               "One JSON object per request on standard output as it ends: operation, kind, "
               "source, code, ok (boolean), message, cause, url, path (when that file exists), "
               "route, bytes, seconds, timeline (where the transfer's time went)");
  app.add_flag("-v,--verbose", common.verbose,
               "Show the library's log on standard error (a line per transfer as it ends)");
  app.add_flag("-q,--quiet", common.quiet, "No progress display");

  quill_cli::DownloadOptions download;
  auto* downloadCommand = app.add_subcommand(
      "download",
      "Download http(s) URLs into a directory; a file already there under the same name is "
      "replaced (see --no-clobber)");
  downloadCommand->add_option("url", download.urls, "URLs to download")->required();
  downloadCommand
      ->add_option("--dir", download.directory, "Destination directory (made if missing)")
      ->capture_default_str();
  auto* nameOption =
      downloadCommand->add_option("--name", download.name,
                                  "File name to save as (one URL only); default: the URL's last "
                                  "path component");
  downloadCommand->add_flag("--image", download.image,
                            "Download as an image: a failure on the static host is retried once "
                            "on the image CDN host");
  downloadCommand->add_flag("--no-clobber", download.noClobber,
                            "Never replace an existing file: a URL whose destination exists fails "
                            "(result -1) without being downloaded; the others go on");
  downloadCommand
      ->add_option("--timeout", download.timeoutSeconds,
                   "Seconds after which whatever is still running is cancelled and "
                   "reported as timed out (exit 1); 0: no limit")
      ->capture_default_str();

  quill_cli::UploadOptions upload;
  bool asImage = false;
  bool asFile = false;
  bool asVideo = false;
  auto* uploadCommand =
      app.add_subcommand("upload", "Upload files; prints the URL of each stored file");
  uploadCommand->add_option("file", upload.files, "Files to upload")->required();
  auto* imageFlag = uploadCommand->add_flag("--image", asImage, "Upload as an image");
  auto* fileFlag = uploadCommand->add_flag("--file", asFile, "Upload as a file (the default)");
  auto* videoFlag = uploadCommand->add_flag("--video", asVideo, "Upload as a video");
  imageFlag->excludes(fileFlag)->excludes(videoFlag);
  fileFlag->excludes(videoFlag);
  uploadCommand
      ->add_option("--timeout", upload.timeoutSeconds,
                   "Seconds after which whatever is still running is cancelled and "
                   "reported as timed out (exit 1); 0: no limit")
      ->capture_default_str();

  quill_cli::AvatarOptions avatar;
  auto* avatarCommand = app.add_subcommand(
      "avatar", "Fetch avatars into the avatar cache; prints each cached file's path once ready");
  avatarCommand->add_option("url", avatar.urls, "Avatar URLs")->required();
  avatarCommand->add_option("--root", avatar.root,
                            "Root of the avatar cache; default: <user-dir>/avatars");
  avatarCommand->add_option("--user", avatar.user, "User whose avatar directory is used")
      ->capture_default_str();
  avatarCommand
      ->add_option("--timeout", avatar.timeoutSeconds,
                   "Seconds to wait for an avatar (a failed one is never announced)")
      ->capture_default_str();

  quill_cli::DemoOptions demo;
  auto* demoCommand = app.add_subcommand(
      "demo",
      "Start the reference file service on 127.0.0.1 (HTTPS, fresh certificate) and run the "
      "whole mission against it");
  demoCommand->add_flag("--keep", demo.keep, "Keep the demo's working directory");
  demoCommand
      ->add_option("--timeout", demo.timeoutSeconds,
                   "Seconds after which whatever is still running is cancelled (the demo then "
                   "fails); 0: no limit")
      ->capture_default_str();

  auto* pathsCommand = app.add_subcommand(
      "paths", "Print the user directory (the library's cache) and the log file, then exit");

  auto arguments = quill_cli::commandLineArguments(argc, argv);
  std::vector<char*> pointers;
  for (auto& argument : arguments) {
    pointers.push_back(argument.data());
  }
  try {
    app.parse(static_cast<int>(pointers.size()), pointers.data());
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? quill_cli::kExitOk : quill_cli::kExitUsage;
  }

  quill_cli::UserPaths paths;
  std::string error;
  if (!quill_cli::resolveUserPaths(common.userDirectory, paths, error)) {
    std::fprintf(stderr, "quill-cloud: %s; %s\n", error.c_str(), kSetHome);
    return quill_cli::kExitUsage;
  }
  common.userDirectory = paths.cacheDirectory;
  common.logFile = paths.logFile;

  if (*pathsCommand) {
    std::printf("user directory: %s\nlog file: %s\n", paths.cacheDirectory.c_str(),
                paths.logFile.c_str());
    return quill_cli::kExitOk;
  }
  if (*downloadCommand) {
    download.nameGiven = nameOption->count() > 0;
    return quill_cli::runDownload(common, download);
  }
  if (*uploadCommand) {
    upload.kind = asImage   ? CloudStorageKind::kImage
                  : asVideo ? CloudStorageKind::kVideo
                            : CloudStorageKind::kFile;
    return quill_cli::runUpload(common, upload);
  }
  if (*avatarCommand) {
    return quill_cli::runAvatar(common, avatar);
  }
  if (*demoCommand) {
    return quill_cli::runDemo(common, demo);
  }
  return quill_cli::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  // Before any thread exists, so that every thread inherits the mask.
  if (!quill_tools::blockStopSignals()) {
    std::fprintf(stderr, "quill-cloud: cannot set up signal handling\n");
    return quill_cli::kExitFailed;
  }
  const int status = runCommandLine(argc, argv);
  quill_tools::reportStopped();
  return status;
}
