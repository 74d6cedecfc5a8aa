#include "domain/json.h"

#include "documents/documents.h"

namespace tavro {

static std::string nested(std::size_t depth, const std::string& inside) {
  return std::string(depth, '[') + inside + std::string(depth, ']');
}

TEST(Json, AcceptsStrictDocumentsAndWritesThemInOneForm) {
  const std::pair<std::string, std::string> rows[] = {
      {R"({ "b" : [1, true, null], "a" : "x\"y" })", R"({"a":"x\"y","b":[1,true,null]})"},
      {R"({"a":{"a":1},"b":{"a":[{"a":2}]}})", R"({"a":{"a":1},"b":{"a":[{"a":2}]}})"},
      {R"("a\nb\\\u00e9")", "\"a\nb\\\\\xc3\xa9\""},
      {"{\"\xc3\xa9\":1,\"z\":2,\"Z\":3}", "{\"Z\":3,\"z\":2,\"\xc3\xa9\":1}"},
      {" [ 18446744073709551615, -0, {} ] ", "[18446744073709551615,0,{}]"},
      {nested(64, "-9223372036854775808"), nested(64, "-9223372036854775808")},
      {"\xef\xbb\xbf{}", "{}"},
      {nested(65, ""), nested(65, "")}};
  for (const auto& [text, canonical] : rows)
    EXPECT_EQ(canonical_json(parse_json(text, text.size())), canonical) << text;
}

TEST(Json, RefusesWhatProtocolDataMayNotHold) {
  const auto parse = [](const std::string& text) { parse_json(text, text.size()); };
  expect_answers(R"(duplicate_key|{"a":1,"\u0061":2}|[{"x":{"b":1,"c":[{}],"b":2}}]
invalid_number|1.0|[1e3]|18446744073709551616
invalid_json|1e999|{} x|[1,]|[1] // no|[|)",
                 parse);
  expect_answers("depth_limit|" + nested(65, "1") + '|' + nested(64, "{\"a\":1}"), parse);
  expect_answers("invalid_json||\"\xff\"|\xef\xbb{}", parse);
  using namespace std::string_literals;
  // What a power cut leaves behind a text is no white space.
  expect_answers("invalid_json|{}\0|{\"a\":1}\0\0rest|[1,\0]|\"\0\"|\0{}"s, parse);
  EXPECT_EQ(code_of([] { parse_json("!!!", 2); }), "size_limit");
  for (const json& value : {json(1.0), json::binary({1})})
    EXPECT_EQ(code_of([&] { canonical_json(json::array({value})); }), "invalid_number");
}

TEST(Json, TakesNothingElseForAnInteger) {
  for (const json& value : {json(1), json(1u), json(1.0), json(true), json("1"), json(2), json(-1)})
    EXPECT_EQ(has_integer({{"a", value}}, "a", 1), value.dump() == "1") << value;
  EXPECT_FALSE(has_integer({{"a", -1}}, "a", ~0ull));
  expect_answers("must be positive|0\na positive integer|-1|true\n|18446744073709551615",
                 [](const std::string& text) { positive_version(json::parse(text)); });
}

}  // namespace tavro
