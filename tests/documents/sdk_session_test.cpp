#include "documents/sdk_session.h"

#include "documents/documents.h"

namespace tavro {

TEST(SdkSession, AcceptsOnlyABoundedRecordOfItsOwnSession) {
  json record = json::parse(R"({"schema_version": 1, "session_id": "s", "nonce": "n",
      "game_id": "g", "build_id": "b", "pid": 77, "sequence": 5, "ready_seen": false,
      "state": "clean_exit", "exit_code": -1})");
  record["breadcrumbs"] = json::array_t(64, {{"category", "c"}, {"message", "m"}});
  record["attachments"] = json::array_t(4, {{"kind", "log"}, {"path", "logs/a.txt"}});
  unsigned long long minimum = 5;
  const auto check = [&](const std::string& damage) {
    const json changed = damaged(record, damage);
    EXPECT_EQ(validate_sdk_record(changed, {"s", "n", "g", "b", 77}, minimum), changed);
  };
  expect_answers(
      R"(|/more 1|/attachments|/attachments []|/exit_code 3|/sequence 18446744073709551615
|/state "starting"|/breadcrumbs/0/category "<64>"|/breadcrumbs/0/message "<512>"
|/native_capture_id "0123456789abcdef0123456789abcdef"|/native_capture_problem "<128>"
does not match|/schema_version 2|/session_id "t"|/nonce "m"|/game_id "h"|/build_id "c"|/pid 78
does not match|/pid "77"|/pid -1|/nonce 1
session_replay|/sequence 4|/sequence 0|/sequence -6|/sequence "6"|/sequence 6.0
missing or malformed|[]|/pid|/sequence|/state|/ready_seen|/breadcrumbs|/exit_code|/breadcrumbs/0 {}
missing or malformed|/attachments/0 1|/attachments/0/kind 1|/native_capture_id 1
state|/ready_seen 1|/state "crashed"|/state 1
evidence|/state "ready"
breadcrumb|/breadcrumbs {}|/breadcrumbs/64 {}|/breadcrumbs/0/category 1
breadcrumb|/breadcrumbs/0/category "<65>"|/breadcrumbs/0/message "<513>"
attachment|/attachments null|/attachments/4 {}|/attachments/0/more 1|/attachments/0/kind "crash"
unsafe_path|/attachments/1/path "../x"
capture|/native_capture_id "0123456789ABCDEF0123456789abcdef"|/native_capture_id "0"
capture|/native_capture_problem 1|/native_capture_problem "<129>"
exit status|/exit_code "0"|/exit_code null)",
      check);
  minimum = 0;
  expect_answers("session_replay|/sequence 0", check);
}

}  // namespace tavro
