#pragma once

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <map>
#include <string>
#include <vector>

#include "support/failure.h"

namespace tavro {

/// Inputs by words that the answer to each of them must hold. No words: it must be accepted.
using Answers = std::map<std::string, std::vector<std::string>>;

/// Hands each input to `work` and compares the failure.
template <typename Work>
void expect_answers(const Answers& answers, Work&& work) {
  for (const auto& [words, inputs] : answers)
    for (const std::string& input : inputs) {
      const std::string failure = failure_of([&] { work(input); });
      EXPECT_THAT(failure, testing::HasSubstr(words)) << input.substr(0, 99);
      EXPECT_EQ(failure.empty(), words.empty()) << input.substr(0, 99) << ": " << failure;
    }
}

/// "/a/b 7" sets a member of the document to 7, "/a/b" alone erases it.
inline nlohmann::json damaged(nlohmann::json document, const std::string& damage) {
  const std::size_t end = damage.find(' ');
  const nlohmann::json::json_pointer place(damage.substr(0, end));
  if (end == std::string::npos)
    document.at(place.parent_pointer()).erase(place.back());
  else
    document[place] = nlohmann::json::parse(damage.substr(end));
  return document;
}

inline nlohmann::json file_entry(const std::string& path, unsigned mode = 0644) {
  return {{"path", path}, {"length", 1}, {"mode", mode}, {"sha256", std::string(64, 'a')}};
}

/// A valid snapshot of these files, of 1 byte each.
inline nlohmann::json snapshot_document(const std::string& executable,
                                        const nlohmann::json& files) {
  auto document = nlohmann::json::parse(R"({"schema_version": 1, "build_id": "build-1",
      "platform": "linux-x86_64", "archive": {"format": "tar.zst-v1", "target": "one.tar.zst"}})");
  document["archive"].update({{"length", 100}, {"sha256", std::string(64, 'b')}});
  document.update(
      {{"executable", executable}, {"files", files}, {"expanded_length", files.size()}});
  return document;
}

}  // namespace tavro
