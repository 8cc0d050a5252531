// The demo: the reference file service on 127.0.0.1 over HTTPS with a fresh certificate, the
// library pointed at it through the deployment variables, and the whole mission run and checked.
#include "AvatarListener.h"
#include "Commands.h"
#include "DemoFiles.h"
#include "Platform.h"

#include <quill_base/FileUtils.h>
#include <quill_base/TextUtils.h>
#include <quill_fileservice/FileService.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace quill_cli {
namespace {

// One line of the summary table.
struct Row {
  std::string operation;
  std::string route;
  std::int64_t bytes = 0;
  double seconds = 0;
  int code = 1;
  bool verified = false;
  std::string problem;
};

class Demo {
public:
  Demo(const CommonOptions& common, const DemoOptions& options)
      : common(common),
        options(options),
        work(fromPath(std::filesystem::temp_directory_path() /
                      ("quill-cloud-demo-" + TextUtils::UUID_String()))) {}

  ~Demo() {
    if (!options.keep) {
      FileUtils::removeTree(work);
    }
  }

  int run();

private:
  bool startService();
  std::string file(const std::string& directory, const std::string& name) const {
    return FileUtils::appendComponent(FileUtils::appendComponent(work, directory), name);
  }
  // Waits for a step's transfers; false when interrupted.
  bool wait(const TransferList& transfers) {
    return session->wait(transfers, *display, nullptr, deadline);
  }
  void step(const std::string& title) { display->note("\n== " + title); }
  Row& add(const std::shared_ptr<Transfer>& transfer, const std::string& operation);
  void check(Row& row, bool condition, const std::string& problem);

  bool uploadsAndBack();
  bool sixAtOnce();
  bool imageRetry();
  bool avatars();
  int summary(bool interrupted);

  CommonOptions common;
  DemoOptions options;
  // Outlives the session, so that no late completion can reach a destroyed listener.
  AvatarListener avatarListener;
  std::string work;
  std::unique_ptr<quill_fileservice::FileService> server;
  std::string staticHost;
  std::string cdnHost;
  std::unique_ptr<Session> session;
  std::unique_ptr<Display> display;
  std::vector<Row> rows;
  std::string photo;
  Clock::time_point deadline = Clock::time_point::max();
};

Row& Demo::add(const std::shared_ptr<Transfer>& transfer, const std::string& operation) {
  const auto state = transfer->snapshot();
  Row row;
  row.operation = operation;
  row.route = state.route;
  row.bytes = state.bytes;
  row.seconds = state.seconds();
  row.code = state.code;
  row.verified = state.succeeded();
  if (!state.succeeded()) {
    row.problem = "result " + std::to_string(state.code) + " (" + describeCode(state.code) + ")" +
                  (state.message.empty() ? "" : ": " + state.message);
  }
  rows.push_back(row);
  return rows.back();
}

void Demo::check(Row& row, bool condition, const std::string& problem) {
  if (!condition && row.verified) {
    row.verified = false;
    row.problem = problem;
  }
}

bool Demo::startService() {
  quill_fileservice::Options serviceOptions;
  serviceOptions.dataDirectory = FileUtils::appendComponent(work, "server");
  serviceOptions.tls = true;
  serviceOptions.signingSecret = TextUtils::UUID_String();
  server = std::make_unique<quill_fileservice::FileService>(serviceOptions);
  if (!server->start()) {
    std::fprintf(stderr, "quill-cloud demo: the file service did not start: %s\n",
                 server->lastError().c_str());
    return false;
  }
  // The library reads its endpoints when the service is made and when a download starts. The
  // static-content host is the same server under another name, so that the image retry's switch to
  // the CDN host shows.
  const auto port = std::to_string(server->port());
  const auto fileHost = "127.0.0.1:" + port;
  staticHost = "localhost:" + port;
  cdnHost = "127.0.0.1:" + port;
  setEnvironmentVariable("QUILL_FILE_SERVICE_HOST", fileHost);
  setEnvironmentVariable("QUILL_PRE_FILE_SERVICE_HOST", fileHost);
  setEnvironmentVariable("QUILL_STATIC_HOST", staticHost);
  setEnvironmentVariable("QUILL_IMAGE_CDN_HOST", cdnHost);
  setEnvironmentVariable("QUILL_CA_BUNDLE", server->caCertificatePath());
  return true;
}

bool Demo::uploadsAndBack() {
  step("Uploads: an image, a file (signature route) and a video (video route), two at a time");
  const auto report = file("source", "report.bin");
  const auto clip = file("source", "clip.mp4");
  writePatternFile(report, 3 * 1024 * 1024 + 123, 1);
  writePatternFile(clip, 5 * 1024 * 1024 + 7, 2);
  const TransferList uploads{session->upload(photo, CloudStorageKind::kImage),
                             session->upload(report, CloudStorageKind::kFile),
                             session->upload(clip, CloudStorageKind::kVideo)};
  if (!wait(uploads)) {
    return false;
  }
  const char* const expectedRoutes[] = {"file service", "signature + object storage",
                                        "video signature + upload"};
  const char* const names[] = {"upload image", "upload file", "upload video"};
  for (std::size_t i = 0; i < uploads.size(); ++i) {
    auto& row = add(uploads[i], names[i]);
    check(row, row.route == expectedRoutes[i], "went by the wrong route: " + row.route);
  }

  step("The three uploads downloaded back and compared byte for byte");
  TransferList back;
  const char* const backNames[] = {"photo.jpg", "report.bin", "clip.mp4"};
  for (std::size_t i = 0; i < uploads.size(); ++i) {
    back.push_back(session->download(uploads[i]->snapshot().url,
                                     FileUtils::appendComponent(work, "downloads"), backNames[i],
                                     i == 0 ? CloudStorageKind::kImage : CloudStorageKind::kFile));
  }
  if (!wait(back)) {
    return false;
  }
  for (std::size_t i = 0; i < back.size(); ++i) {
    auto& row = add(back[i], std::string("download back ") + backNames[i]);
    check(row, FileUtils::sameContent(uploads[i]->snapshot().path, back[i]->snapshot().path),
          "differs from the file uploaded");
  }
  return true;
}

bool Demo::sixAtOnce() {
  step("Six downloads at once: the library runs at most four together");
  constexpr int kCount = 6;
  constexpr std::size_t kSize = 640 * 1024;
  // Each reply is paced at 1 MiB/s, so the first four are still running when the last two wait.
  const std::string pace = "?quill_rate=1048576";
  std::vector<std::string> sources;
  std::vector<std::string> urls;
  for (int i = 0; i < kCount; ++i) {
    const auto name = "part-" + std::to_string(i + 1) + ".bin";
    sources.push_back(file("source", name));
    writePatternFile(sources.back(), kSize + static_cast<std::size_t>(i), 10U + i);
    const auto path = server->addFile(TextUtils::UUID_String() + "-" + name, sources.back());
    urls.push_back(server->baseUrl() + path + pace);
  }
  // How many of the six requests the server had received when the first one ended: the library
  // starts a waiting download only after one has ended, so this is the number running at once.
  auto atFirstEnd = std::make_shared<std::atomic<long>>(-1);
  const auto baseline = server->requestCount();
  auto* service = server.get();
  const auto hook = [atFirstEnd, baseline, service](const CloudStorageRequest&) {
    long unset = -1;
    atFirstEnd->compare_exchange_strong(unset,
                                        static_cast<long>(service->requestCount() - baseline));
  };
  TransferList downloads;
  for (int i = 0; i < kCount; ++i) {
    downloads.push_back(session->download(urls[i], FileUtils::appendComponent(work, "downloads"),
                                          FileUtils::fileName(sources[i]), 2, hook));
  }
  if (!wait(downloads)) {
    return false;
  }
  const long together = atFirstEnd->load();
  display->note("   running together when the first ended: " + std::to_string(together) + " of " +
                std::to_string(kCount));
  for (int i = 0; i < kCount; ++i) {
    auto& row = add(downloads[i], "download " + FileUtils::fileName(sources[i]));
    row.route += ", limit 4";
    check(row, FileUtils::sameContent(sources[i], downloads[i]->snapshot().path),
          "differs from the file served");
    check(row, together == 4,
          "expected 4 downloads running together, saw " + std::to_string(together));
  }
  return true;
}

bool Demo::imageRetry() {
  step("An image download failing on the static host " + staticHost +
       ", retried on the image CDN host " + cdnHost + " 2 s later");
  const auto key = "cdn-only-" + TextUtils::UUID_String() + ".jpg";
  const auto path = server->addFile(key, photo);
  quill_fileservice::Fault fault;
  fault.pathPrefix = path;
  fault.host = staticHost;
  fault.status = 503;
  server->addFault(fault);
  auto transfer = session->download("https://" + staticHost + path,
                                    FileUtils::appendComponent(work, "downloads"), key,
                                    CloudStorageKind::kImage);
  if (!wait({transfer})) {
    return false;
  }
  auto& row = add(transfer, "download image (retried)");
  const auto state = transfer->snapshot();
  check(row, hostOfUrl(state.url) == cdnHost, "was not retried on the image CDN host");
  check(row, FileUtils::sameContent(photo, state.path), "differs from the image served");
  return true;
}

bool Demo::avatars() {
  step("An avatar downloaded, scaled to 200 px and announced to the listener; an avatar upload");
  auto& listener = avatarListener;
  auto queue = std::make_shared<SerialQueue>("quill-cloud demo avatars");
  auto manager = std::make_shared<AvatarManager>(queue, session->service());
  manager->addListener(&listener);
  const auto root = FileUtils::appendComponent(work, "avatars");
  bool completed = true;
  if (!manager->createAvatarPath(root, "demo-user")) {
    Row row;
    row.operation = "avatar";
    row.problem = "cannot make the avatar directories under " + root;
    rows.push_back(row);
  } else {
    const auto path = server->addFile("avatar-" + TextUtils::UUID_String() + ".jpg", photo);
    const auto url = "https://" + staticHost + path;
    const TransferState initial = avatarTransferState(url, manager->avatarPath(url));
    auto avatar = std::make_shared<Transfer>(initial);
    avatar->requestId = TextUtils::UUID_String();
    avatar->deadline = Clock::now() + std::chrono::seconds(30);
    listener.expect(avatar->requestId, avatar);
    const auto cached = manager->downloadAvatar(avatar->requestId, url);
    if (!cached.empty()) {
      avatar->end(CloudStorageResult::kFailed, "was cached before it was ever downloaded");
    }

    TransferState uploadState;
    uploadState.operation = "upload";
    uploadState.kind = "avatar";
    uploadState.label = FileUtils::fileName(photo);
    uploadState.source = photo;
    uploadState.path = photo;
    uploadState.totalBytes = static_cast<std::int64_t>(FileUtils::fileSize(photo));
    auto upload = std::make_shared<Transfer>(uploadState);
    const std::weak_ptr<Transfer> weakUpload = upload;
    manager->uploadAvatarImage(photo, [weakUpload](const std::string& stored) {
      if (auto self = weakUpload.lock()) {
        self->update([&stored](TransferState& state) {
          state.url = stored;
          state.bytes = stored.empty() ? 0 : state.totalBytes;
          state.route = uploadRoute(stored);
        });
        self->end(stored.empty() ? -100 : 2, stored.empty() ? "no URL came back" : "");
      }
    });
    // The upload's end is announced through its callback only; give it the same deadline.
    upload->deadline = Clock::now() + std::chrono::seconds(30);

    completed = wait({avatar, upload});
    if (completed) {
      auto& row = add(avatar, "avatar download");
      int width = 0;
      int height = 0;
      const bool readable = jpegSize(avatar->snapshot().path, width, height);
      check(row, readable, "the cached avatar is not a readable JPEG");
      check(row, std::max(width, height) == 200,
            "scaled to " + std::to_string(width) + "x" + std::to_string(height) + ", not 200");
      if (readable) {
        display->note("   cached avatar " + avatar->snapshot().path + ": " + std::to_string(width) +
                      "x" + std::to_string(height));
      }

      auto& uploaded = add(upload, "avatar upload");
      const auto storedUrl = upload->snapshot().url;
      const auto pathStart = storedUrl.find('/', storedUrl.find("//") + 2);
      const auto stored = pathStart == std::string::npos
                              ? std::string()
                              : server->storedFile(storedUrl.substr(pathStart));
      check(uploaded, !stored.empty() && FileUtils::sameContent(photo, stored),
            "the server does not hold the image uploaded");
    }
  }
  // The listener lives as long as the demo; once the manager is gone nothing new reaches it.
  manager.reset();
  drain(*queue);
  return completed;
}

int Demo::summary(bool interrupted) {
  std::printf("\n%-26s %-44s %10s %9s %12s %6s  %s\n", "operation", "route", "bytes", "time",
              "rate", "result", "verified");
  int verified = 0;
  for (const auto& row : rows) {
    std::printf("%-26s %-44s %10s %9s %12s %6d  %s\n", row.operation.c_str(), row.route.c_str(),
                formatBytes(row.bytes).c_str(), formatSeconds(row.seconds).c_str(),
                formatRate(row.bytes, row.seconds).c_str(), row.code,
                row.verified ? "yes" : ("NO: " + row.problem).c_str());
    verified += row.verified ? 1 : 0;
  }
  const bool all = !interrupted && verified == static_cast<int>(rows.size()) && rows.size() == 15;
  std::printf("\n%d of %zu operations verified%s\n", verified, rows.size(),
              interrupted ? " (interrupted)"
              : all       ? "; everything checks out"
                          : "");
  if (!session->logFile().empty()) {
    std::printf("library log: %s\n", session->logFile().c_str());
  }
  if (options.keep) {
    std::printf("demo files kept in %s\n", work.c_str());
  }
  std::fflush(stdout);
  if (interrupted) {
    return kExitInterrupted;
  }
  return all ? kExitOk : kExitFailed;
}

int Demo::run() {
  if (options.timeoutSeconds < 0) {
    std::fprintf(stderr, "quill-cloud: --timeout cannot be negative\n");
    return kExitUsage;
  }
  if (options.timeoutSeconds > 0) {
    deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                  std::chrono::duration<double>(options.timeoutSeconds));
  }
  if (!FileUtils::makeDirectory(FileUtils::appendComponent(work, "source")) ||
      !FileUtils::makeDirectory(FileUtils::appendComponent(work, "downloads"))) {
    std::fprintf(stderr, "quill-cloud demo: cannot make %s\n", work.c_str());
    return kExitFailed;
  }
  if (!startService()) {
    return kExitFailed;
  }
  display = std::make_unique<Display>(Display::chooseMode(common.quiet));
  display->note("quill-cloud demo: reference file service on " + server->baseUrl() +
                " (HTTPS, certificate made just now)");

  CommonOptions identity = common;
  if (!identity.hasIdentity()) {
    identity.appId = "quill-demo";
    identity.aid = "demo-account";
    identity.pin = "demo-pin";
  }
  session = std::make_unique<Session>(identity, true);
  if (!session->ready()) {
    return kExitFailed;
  }

  photo = file("source", "photo.jpg");
  if (!writeJpegPicture(photo, 1280, 960)) {
    std::fprintf(stderr, "quill-cloud demo: cannot make the demo picture\n");
    return kExitFailed;
  }

  const bool completed = uploadsAndBack() && sixAtOnce() && imageRetry() && avatars();
  const int status = summary(!completed);
  session.reset();
  server.reset();
  return status;
}

}  // namespace

int runDemo(const CommonOptions& common, const DemoOptions& options) {
  Demo demo(common, options);
  return demo.run();
}

}  // namespace quill_cli
