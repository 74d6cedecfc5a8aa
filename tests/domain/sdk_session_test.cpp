#include "domain/sdk_session.h"

#include "domain/documents.h"

namespace tavro {

static const SessionBinding binding = {"s", "n", "g", "b", 77};

TEST(SdkSession, AcceptsOnlyABoundedRecordOfItsOwnSession) {
  const json record = json::parse(R"({"schema_version": 1, "session_id": "s", "nonce": "n",
      "game_id": "g", "build_id": "b", "pid": 77, "sequence": 5, "ready_seen": false,
      "state": "clean_exit", "exit_code": -1, "breadcrumbs": [],
      "attachments": [{"kind": "log", "path": "logs/a.txt"}, {"kind": "video", "path": "v"}]})");
  const auto crumbs = [](int count, int category, int message) {
    const json crumb = {{"category", std::string(category, 'c')},
                        {"message", std::string(message, 'm')}};
    return "|/breadcrumbs " + json(json::array_t(count, crumb)).dump();
  };
  const std::string b128(128, 'x'), log = R"({"kind":"log","path":"a"})";
  expect_answers(crumbs(64, 64, 512) + "|/native_capture_problem \"" + b128 + "\"|/attachments [" +
                     log + "," + log + "," + log + "," + log + "]\ntoo many breadcrumbs" +
                     crumbs(65, 0, 0) + "\nbreadcrumb exceeds" + crumbs(1, 65, 0) +
                     crumbs(1, 0, 513) + "\nproblem exceeds its bound|/native_capture_problem \"x" +
                     b128 + "\"" + R"(
|/more 1|/attachments|/attachments []|/state "starting"|/exit_code 3|/sequence 18446744073709551615
|/native_capture_id "0123456789abcdef0123456789abcdef"
does not match|/schema_version 2|/session_id "t"|/nonce "m"|/game_id "h"|/build_id "c"|/pid 78
does not match|/pid "77"|/pid -1|/nonce 1
session_replay|/sequence 4|/sequence 0|/sequence -6|/sequence "6"|/sequence 6.0
missing or malformed|[]|/pid|/sequence|/state|/ready_seen|/breadcrumbs|/exit_code|/breadcrumbs/0 {}
missing or malformed|/attachments/0 1|/attachments/0/kind 1|/native_capture_id 1
session state|/ready_seen 1|/state "crashed"|/state 1
too many breadcrumbs|/breadcrumbs {}
breadcrumb exceeds|/breadcrumbs/0 {"category":1}
lacks readiness|/state "ready"
too many attachments|/attachments null|/attachments/4 {}
attachment is invalid|/attachments/0/more 1|/attachments/0/kind "crash"
unsafe_path|/attachments/1/path "../x"
capture identity|/native_capture_id "0123456789ABCDEF0123456789abcdef"|/native_capture_id "0"
problem exceeds its bound|/native_capture_problem 1
exit status|/exit_code "0"|/exit_code null)",
                 [&](const std::string& damage) {
                   const json changed = damaged(record, damage);
                   EXPECT_EQ(validate_sdk_record(changed, binding, 5), changed);
                 });
  EXPECT_FAILURE(validate_sdk_record(damaged(record, "/sequence 0"), binding, 0),
                 "session_replay: Readiness sequence went backwards");
}

}  // namespace tavro
