// quill-cloud: downloads, uploads and avatars from the command line, through the library's exported
// classes as any host would use them, and the demo that runs the whole mission against a local
// reference file service.
#include "Commands.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

const char* const kDescription =
    "quill-cloud: moves files to and from the file service with the quill_cloud library.\n"
    "\n"
    "Identity: --app-id, --aid, --pin or QUILL_APP_ID, QUILL_AID, QUILL_PIN (uploads need all\n"
    "three). Endpoints: QUILL_FILE_SERVICE_HOST, QUILL_STATIC_HOST, QUILL_IMAGE_CDN_HOST,\n"
    "QUILL_PRE_FILE_SERVICE_HOST (host or host:port), QUILL_CA_BUNDLE (trusted CAs, PEM).\n"
    "The library's log goes to <user-dir>/quill-cloud.log (--verbose: standard error).\n"
    "\n"
    "Exit status: 0 all succeeded, 1 a transfer failed, 2 usage error, 130 interrupted.";

}  // namespace

int main(int argc, char** argv) {
  // Before any thread exists, so that every thread inherits the mask.
  if (!quill_cli::blockStopSignals()) {
    std::fprintf(stderr, "quill-cloud: cannot set up signal handling\n");
    return quill_cli::kExitFailed;
  }

  quill_cli::CommonOptions common;
  common.appId = environment("QUILL_APP_ID");
  common.aid = environment("QUILL_AID");
  common.pin = environment("QUILL_PIN");
  common.userDirectory = quill_cli::defaultUserDirectory();

  CLI::App app{kDescription, "quill-cloud"};
  app.require_subcommand(1);
  app.fallthrough();
  app.set_version_flag("--version", std::string("quill-cloud ") + QUILL_VERSION);
  app.add_option("--app-id", common.appId, "Application id (QUILL_APP_ID)");
  app.add_option("--aid", common.aid, "Account id (QUILL_AID)");
  app.add_option("--pin", common.pin, "User pin (QUILL_PIN)");
  app.add_option("--user-dir", common.userDirectory,
                 "The user's directory: the library's cache, the log, default avatar root")
      ->capture_default_str();
  app.add_flag("--json", common.json,
               "One JSON object per request on standard output: operation, kind, source, code, "
               "ok, message, url, path, route, bytes, seconds");
  app.add_flag("-v,--verbose", common.verbose, "Show the library's log on standard error");
  app.add_flag("-q,--quiet", common.quiet, "No progress display");

  quill_cli::DownloadOptions download;
  auto* downloadCommand = app.add_subcommand("download", "Download URLs into a directory");
  downloadCommand->add_option("url", download.urls, "URLs to download")->required();
  downloadCommand
      ->add_option("--dir", download.directory, "Destination directory (made if missing)")
      ->capture_default_str();
  downloadCommand->add_option("--name", download.name,
                              "File name to save as (one URL only); default: the URL's last "
                              "path component");
  downloadCommand->add_flag("--image", download.image,
                            "Download as an image: a failure on the static host is retried once "
                            "on the image CDN host");

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

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? quill_cli::kExitOk : quill_cli::kExitUsage;
  }

  if (*downloadCommand) {
    return quill_cli::runDownload(common, download);
  }
  if (*uploadCommand) {
    upload.kind = asImage ? 1 : asVideo ? 3 : 2;
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
