#pragma once

#include <curl/curl.h>

#include <string>
#include <utility>

namespace quill_network_detail {

// Sole owner of one libcurl resource: move-only, frees the handle exactly once. Whoever holds an
// easy handle in a multi handle must remove it from there before the owner lets it go.
template <typename T, void (*Free)(T*)>
class CurlOwner {
public:
  CurlOwner() = default;
  explicit CurlOwner(T* handle) : owned(handle) {}
  ~CurlOwner() { reset(); }
  CurlOwner(CurlOwner&& other) noexcept : owned(std::exchange(other.owned, nullptr)) {}
  CurlOwner& operator=(CurlOwner&& other) noexcept {
    if (this != &other) {
      reset(std::exchange(other.owned, nullptr));
    }
    return *this;
  }
  CurlOwner(const CurlOwner&) = delete;
  CurlOwner& operator=(const CurlOwner&) = delete;

  T* get() const { return owned; }
  explicit operator bool() const { return owned != nullptr; }
  void reset(T* next = nullptr) {
    if (owned != nullptr) {
      Free(owned);
    }
    owned = next;
  }

private:
  T* owned = nullptr;
};

// The cleanup functions of the multi and share handles return a code; an owner has no use for it.
inline void freeMulti(CURLM* multi) {
  curl_multi_cleanup(multi);
}
inline void freeShare(CURLSH* share) {
  curl_share_cleanup(share);
}

using EasyHandle = CurlOwner<CURL, &curl_easy_cleanup>;
using MultiHandle = CurlOwner<CURLM, &freeMulti>;
using ShareHandle = CurlOwner<CURLSH, &freeShare>;
using MimeHandle = CurlOwner<curl_mime, &curl_mime_free>;

// A header list grows by replacing its head; on failure curl leaves the old list intact.
class HeaderList {
public:
  // False when curl could not allocate the line; the list is unchanged then.
  bool append(const std::string& line) {
    curl_slist* head = curl_slist_append(list.get(), line.c_str());
    if (head == nullptr) {
      return false;
    }
    // curl_slist_append returns the same head once the list exists; only the first call changes it.
    if (head != list.get()) {
      list = Owner(head);
    }
    return true;
  }
  curl_slist* get() const { return list.get(); }

private:
  using Owner = CurlOwner<curl_slist, &curl_slist_free_all>;
  Owner list;
};

}  // namespace quill_network_detail
