// The named codes are the integers hosts have always received: they must never change.
#include <quill_cloud/CloudStorageCodes.h>
#include <quill_cloud/CloudStorageRequest.h>

#include <gtest/gtest.h>

TEST(CloudStorageCodes, KindsKeepTheirValues) {
  EXPECT_EQ(CloudStorageKind::kImage, 1);
  EXPECT_EQ(CloudStorageKind::kFile, 2);
  EXPECT_EQ(CloudStorageKind::kVideo, 3);
}

TEST(CloudStorageCodes, ResultCodesKeepTheirValues) {
  EXPECT_EQ(CloudStorageResult::kPending, 1);
  EXPECT_EQ(CloudStorageResult::kSuccess, 2);
  EXPECT_EQ(CloudStorageResult::kCancelled, 3);
  EXPECT_EQ(CloudStorageResult::kFailed, -1);
  EXPECT_EQ(CloudStorageResult::kNotFound, -2);
  EXPECT_EQ(CloudStorageResult::kForbidden, -3);
  EXPECT_EQ(CloudStorageResult::kBadRequest, -4);
  EXPECT_EQ(CloudStorageResult::kTransferFailed, -100);
  EXPECT_EQ(CloudStorageRequest(false).resultCode, CloudStorageResult::kPending);
}

TEST(CloudStorageCodes, StatesAndTaskTypesKeepTheirValues) {
  EXPECT_EQ(CloudStorageState::kWaiting, 1);
  EXPECT_EQ(CloudStorageState::kRunning, 2);
  EXPECT_EQ(CloudStorageState::kFinished, 3);
  EXPECT_EQ(CloudStorageTaskType::kImageUpload, 1);
  EXPECT_EQ(CloudStorageTaskType::kFileUpload, 2);
  EXPECT_EQ(CloudStorageTaskType::kImageDownload, 3);
  EXPECT_EQ(CloudStorageTaskType::kFileDownload, 4);
  EXPECT_EQ(CloudStorageTaskType::kVideoUpload, 5);
}
