#include "NetFaultsEnvironment.h"
#include "Environment.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>

namespace quill_test {
namespace {

FileServiceEnvironment::Settings overHttps() {
  FileServiceEnvironment::Settings settings;
  settings.options.tls = true;
  return settings;
}

NetFaultsEnvironment* const environment = registerEnvironment(new NetFaultsEnvironment);

unsigned seedFromEnvironment() {
  const char* value = std::getenv("QUILL_NETFAULTS_SEED");
  if (value != nullptr && *value != '\0') {
    return static_cast<unsigned>(std::strtoul(value, nullptr, 10));
  }
  return std::random_device{}();
}

}  // namespace

NetFaultsEnvironment::NetFaultsEnvironment() : FileServiceEnvironment(overHttps()) {}

void NetFaultsEnvironment::prepare(quill_fileservice::Options& options) {
  madeForTheRun = std::make_unique<TestCertificates>(freshDirectory());
  ASSERT_EQ(madeForTheRun->error(), "");
  TestCertificates::ServerSpec good;
  good.dnsNames = {"localhost"};
  good.ipAddresses = {"127.0.0.1"};
  const auto files = madeForTheRun->makeServer("good", good);
  ASSERT_EQ(madeForTheRun->error(), "");
  options.certFile = files.certificate;
  options.keyFile = files.key;
}

void NetFaultsEnvironment::SetUp() {
  FileServiceEnvironment::SetUp();
  if (::testing::Test::HasFatalFailure()) {
    return;
  }
  const unsigned seed = seedFromEnvironment();
  std::printf("netfaults seed %u (QUILL_NETFAULTS_SEED)\n", seed);
  inFront = std::make_unique<FaultProxy>(service().port(), seed);
  ASSERT_TRUE(inFront->start());

  quill_test::setEnvironment("QUILL_CA_BUNDLE", madeForTheRun->trustedCaFile().c_str());
  pointHostsAt(proxyHost());
}

void NetFaultsEnvironment::TearDown() {
  // The proxy first: it forwards to the service.
  inFront.reset();
  FileServiceEnvironment::TearDown();
  madeForTheRun.reset();
}

quill_fileservice::FileService& NetFaultsEnvironment::server() {
  return environment->service();
}
FaultProxy& NetFaultsEnvironment::proxy() {
  return *environment->inFront;
}
TestCertificates& NetFaultsEnvironment::certificates() {
  return *environment->madeForTheRun;
}
std::string NetFaultsEnvironment::scratch() {
  return environment->freshDirectory();
}
std::string NetFaultsEnvironment::proxyHost() {
  return "127.0.0.1:" + std::to_string(proxy().port());
}
std::string NetFaultsEnvironment::proxiedUrl(const std::string& path) {
  return "https://" + proxyHost() + path;
}
std::string NetFaultsEnvironment::proxiedStaticUrl(const std::string& path) {
  return "https://localhost:" + std::to_string(proxy().port()) + path;
}

std::size_t filesBelow(const std::string& directory) {
  std::size_t count = 0;
  std::error_code ec;
  for (std::filesystem::recursive_directory_iterator it(directory, ec), end; !ec && it != end;
       it.increment(ec)) {
    count += it->is_regular_file(ec) ? 1 : 0;
  }
  return count;
}

std::string urlPath(const std::string& url) {
  const auto scheme = url.find("://");
  const auto start = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
  return start == std::string::npos ? std::string() : url.substr(start);
}

}  // namespace quill_test
