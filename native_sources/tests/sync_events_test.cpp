#include "fake_host.hpp"
#include "tidewright/sync/reporting/sync_events.hpp"

#include "test_support.hpp"

#include <gtest/gtest.h>

#include <thread>

namespace tidewright::sync {
namespace {

json::object event_of(std::string_view json_text) { return parse_json(json_text).get_object(); }

class SyncEventsTest : public test_support::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    reset_sync_event_coalescing();
  }

  // Sync-event log lines, in order.
  std::vector<FakeHost::LogLine> events() {
    std::vector<FakeHost::LogLine> out;
    for (auto& line : host_->log_lines()) {
      if (line.event) out.push_back(line);
    }
    return out;
  }
};

TEST_F(SyncEventsTest, LevelsFollowTheEventsContent) {
  struct Case {
    const char* event;
    const char* level;
  } cases[] = {
      {R"({"event_type":"sync_recovered_status","error_code":"UpstreamTimeout","retryable":false})", "info"},
      {R"({"event_type":"checksum_repair_exhausted"})", "warning"},
      {R"({"event_type":"sync_unavailable_status","error_code":"UpstreamTimeout"})", "error"},
      {R"({"event_type":"sync_unavailable_status","last_server_error_code":"gateway TIMEOUT"})", "error"},
      {R"({"event_type":"sync_unavailable_status","exception_sequence":["URLError","TimeoutError"]})", "error"},
      {R"({"event_type":"sync_unavailable_status","retryable":false,"recovery":"reauthenticate"})", "warning"},
      {R"({"event_type":"sync_unavailable_status","retryable":false})", "warning"},
      {R"({"event_type":"sync_unavailable_status","retryable":0})", "info"},
      {R"({"event_type":"sync_unavailable_status","retryable":true})", "info"},
      {R"({"event_type":"http_retry","next_action":"REAUTHENTICATE"})", "warning"},
      {R"({"event_type":"http_retry","next_action":"Contact Tidewright"})", "warning"},
      {R"({"event_type":"range_resume","recovery":"Operator_Fix_Required"})", "warning"},
      {R"({"event_type":"http_retry","error_code":"UpstreamTimeout"})", "info"},
      {R"({"count":1})", "info"},
  };
  for (const auto& c : cases) EXPECT_EQ(sync_event_level_name(event_of(c.event)), c.level) << c.event;

  EXPECT_TRUE(sync_event_value_mentions_timeout(json::value("ReadTimeout")));
  EXPECT_TRUE(sync_event_value_mentions_timeout(parse_json(R"({"x":"timeout"})")));
  EXPECT_FALSE(sync_event_value_mentions_timeout(json::value(nullptr)));
  EXPECT_FALSE(sync_event_mentions_timeout(event_of(R"({"exception_sequence":"TimeoutError"})")))
      << "only a list is searched item by item";
}

TEST_F(SyncEventsTest, CoalescingKeysIgnoreVolatileFieldsAndCanonicaliseValues) {
  auto a = sync_event_coalesce_key(event_of(
      R"({"event_type":"http_retry","file":"f","count":1,"wait_seconds":0.4,"attempt":0,"range_start":0,
          "range_end":9,"elapsed_seconds":1.5,"bytes_existing":3,"actual_size":4,"status":503,
          "detail":{"b":1,"a":[true,null]}})"));
  auto b = sync_event_coalesce_key(event_of(
      R"({"detail":{"a":[true,null],"b":1},"status":503,"count":7,"file":"f","event_type":"http_retry"})"));
  EXPECT_EQ(a, b);
  SyncEventCoalesceKey expected = {{"detail", R"({"a": [true, null], "b": 1})"},
                                   {"event_type", "http_retry"},
                                   {"file", "f"},
                                   {"status", "503"}};
  EXPECT_EQ(a, expected);

  json::value flag(false), missing(nullptr), number(2.5);
  EXPECT_EQ(sync_event_stable_coalesce_value(&flag), "false");
  EXPECT_EQ(sync_event_stable_coalesce_value(&missing), "null");
  EXPECT_EQ(sync_event_stable_coalesce_value(nullptr), "null");
  EXPECT_EQ(sync_event_stable_coalesce_value(&number), "2.5");
}

TEST_F(SyncEventsTest, CoalescingCountsHoldUnderConcurrentEmitters) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 50; ++i) log_sync_event("range_resume", "coalesce/threads.bin", t * 100 + i, "partial_tmp");
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(events().size(), static_cast<std::size_t>(SYNC_EVENT_COALESCE_LIMIT));
}

// The reports' other fields are checked through the module (the Python
// sync event tests).
TEST_F(SyncEventsTest, BackoffWaitsAreRoundedAndFilesNamedByTheirPathBelowTheDataRoute) {
  emit_sync_backoff_wait("http_request", 2, "http_503", "reports/a b.bin", 1.23456);
  auto lines = events();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].event->at("count"), 3);
  EXPECT_DOUBLE_EQ(lines[0].event->at("wait_seconds").as_double(), 1.235);
  EXPECT_EQ(sync_event_file_from_url("https://h/data/manifest/version"), "/data/manifest/version");
  EXPECT_EQ(sync_event_file_from_url("https://h/base/data/files/x/y%20z%2e%2Earrow?sig=1"), "x/y z..arrow");
  EXPECT_EQ(sync_event_file_from_url(""), "");
}

}  // namespace
}  // namespace tidewright::sync
