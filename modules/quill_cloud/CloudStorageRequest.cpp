#include <quill_cloud/CloudStorageRequest.h>

CloudStorageRequest::CloudStorageRequest(bool isUpload) : isUpload(isUpload) {}

CloudStorageRequest::CloudStorageRequest(const CloudStorageRequest&) = default;
CloudStorageRequest::CloudStorageRequest(CloudStorageRequest&&) noexcept = default;
CloudStorageRequest& CloudStorageRequest::operator=(const CloudStorageRequest&) = default;
CloudStorageRequest& CloudStorageRequest::operator=(CloudStorageRequest&&) noexcept = default;
CloudStorageRequest::~CloudStorageRequest() = default;
