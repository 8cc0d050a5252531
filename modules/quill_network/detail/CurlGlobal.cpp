#include "detail/CurlGlobal.h"

#include <quill_base/Logger.h>

#include <curl/curl.h>

namespace quill_network_detail {

bool ensureCurlGlobalInit() {
  // A function-local static is initialised exactly once even when threads race to it.
  static const bool initialised = [] {
    const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (result != CURLE_OK) {
      QLOG_ERROR("curl_global_init failed: " << curl_easy_strerror(result));
      return false;
    }
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    QLOG_DEBUG("libcurl " << info->version << " with "
                          << (info->ssl_version ? info->ssl_version : "no TLS"));
    return true;
  }();
  return initialised;
}

}  // namespace quill_network_detail
