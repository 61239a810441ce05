#include "tidewright/sync/transport/settings.hpp"

#include "tidewright/sync/reporting/errors.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <string>

namespace tidewright::sync {
namespace {

template <typename F>
std::string value_error_message(F&& fn) {
  return test_support::message_of<ValueError>(std::forward<F>(fn));
}

TEST(Knobs, NullAndBlankMeanDefaultOthersMustParse) {
  json::value null(nullptr), blank(" \t"), curl(" CURL "), text(" 12 "), fractional(12.7);
  EXPECT_EQ(sync_http_transport(&null), "auto");
  EXPECT_EQ(sync_http_transport(&curl), "curl");
  EXPECT_EQ(sync_http_chunk_bytes(&blank), SYNC_HTTP_CHUNK_BYTES);
  EXPECT_EQ(sync_max_concurrency(nullptr), SYNC_MAX_CONCURRENCY);
  EXPECT_EQ(sync_http_chunk_bytes(&text), 12);
  EXPECT_EQ(sync_max_concurrency(&fractional), 12);

  json::value http2("http2");
  EXPECT_EQ(value_error_message([&] { sync_http_transport(&http2); }),
            "invalid sync_http_transport: expected auto, urllib, or curl");
  for (json::value bad : {json::value("0"), json::value("1.5"), json::value(-3), json::value(json::array{})}) {
    EXPECT_EQ(value_error_message([&] { sync_http_chunk_bytes(&bad); }),
              "invalid sync_http_chunk_bytes: expected a positive integer");
    EXPECT_EQ(value_error_message([&] { sync_max_concurrency(&bad); }),
              "invalid sync_max_concurrency: expected a positive integer");
  }
}

TEST(StatusPolicy, ClassifiesDownloadFailures) {
  EXPECT_TRUE(should_retry_http_status(json::value("503")));
  EXPECT_FALSE(should_retry_http_status(json::value(416)));
  EXPECT_FALSE(should_retry_http_status(json::value(nullptr)));

  EXPECT_THROW(raise_download_http_status("a.arrow", json::value(401)), AuthError);
  try {
    raise_download_http_status("a.arrow", json::value(429));
    ADD_FAILURE() << "HTTP 429 did not throw";
  } catch (const SyncError& e) {
    EXPECT_EQ(e.kind(), ErrorKind::kSyncError) << "a transient status must stay retryable";
    EXPECT_STREQ(e.what(), "Download failed for a.arrow: HTTP 429");
  }
  try {
    raise_download_http_status("a/b.parquet", json::value("x"));
    ADD_FAILURE() << "a status that is not a number did not throw";
  } catch (const PermanentDownloadError& e) {
    EXPECT_STREQ(e.what(), "Download failed for a/b.parquet: HTTP -1");
    EXPECT_EQ(e.file_path, "a/b.parquet");
    EXPECT_FALSE(e.status.has_value());
  }
  try {
    raise_download_http_status("a.arrow", json::value(404));
    ADD_FAILURE() << "HTTP 404 did not throw";
  } catch (const PermanentDownloadError& e) {
    EXPECT_EQ(e.status, 404);
  }
}

}  // namespace
}  // namespace tidewright::sync
