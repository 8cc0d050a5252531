#pragma once

#include "GlobalEnvironment.h"
#include "TestSupport.h"

#include <quill_fileservice/FileService.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace quill_test {

// One reference file service on loopback for a whole test program: started before the first test,
// stopped after the last, its stored files in a temporary directory of its own. What differs
// between programs is in Settings; a subclass can make what the options name (certificates) in
// prepare(), and put more in front of the service in its own SetUp().
class FileServiceEnvironment : public ::testing::Environment {
public:
  struct Settings {
    // Given to the service as they are, but for the data directory: the environment's own.
    quill_fileservice::Options options;
    // QUILL_CA_BUNDLE names the CA the service made for itself (HTTPS without a certificate of
    // the test's), so that the library trusts it as a deployment trusts its configured CA.
    bool trustItsCa = false;
    // The library's deployment hosts point at the service (see pointHostsAt).
    bool pointHostsHere = false;
  };

  explicit FileServiceEnvironment(Settings settings);

  void SetUp() override;
  void TearDown() override;

  // The running service; throws std::logic_error when it is not running.
  quill_fileservice::FileService& service() const;
  // A fresh directory that lives as long as the environment.
  std::string freshDirectory() const;

protected:
  // Called by SetUp() before the service starts, with the environment's directory made. A fatal
  // failure here leaves the service unstarted.
  virtual void prepare(quill_fileservice::Options& /*options*/) {}

private:
  Settings settings;
  std::unique_ptr<TempDir> directory;
  std::unique_ptr<quill_fileservice::FileService> running;
};

// Points the library's deployment hosts at host:port: the file service, pre-file-service and image
// CDN hosts as given, the static-content host as localhost on the same port. The static host must
// differ from the image CDN host for the image retry to rewrite anything: it is the same server
// under its other name.
void pointHostsAt(const std::string& hostPort);

}  // namespace quill_test
