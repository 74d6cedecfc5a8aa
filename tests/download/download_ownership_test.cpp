#include "documents/documents.h"
#include "domain/json_fields.h"
#include "download/receipt_group.h"
#include "launcher/launcher_download.h"
#include "platform/files/durable_files.h"
#include "platform/host/native_platform.h"
#include "publisher/descriptors.h"
#include "support/fail_nth_call.h"
#include "support/installation.h"
#include "tuf/download_record.h"
#include "tuf/trusted_client.h"

namespace tavro::download_ownership_test {

const std::string torn = '.' + std::string(32, '0') + ".tmp";

/// A repository with a release, and a store that fetches it as a staging does.
struct Ownership : testing::Test {
  TrustedClient trusted;
  TargetServer server;
  const fs::path root = trusted.folder.path() / "launcher", downloads = root / "downloads";
  const std::string target = launcher_manifest_target(native_platform()), packed = "one.tar.zst";
  std::map<std::string, std::string> content = {{packed, std::string(100000, 'a')}};
  json reference = {{"build_id", "build-1"}};
  fs::path manifest;

  Ownership() {
    json document = launcher_document(snapshot_of({"+cli", "+gui"}), {"gui", {}});
    const auto sha256 = digest(content[packed], "sha256");
    document["platform"] = native_platform();
    document["archive"].update({{"length", content[packed].size()}, {"sha256", sha256}});
    content[target] = document.dump();
    reference["manifest_sha256"] = digest(content[target], "sha256");
    manifest = root / "manifests" / (text_member(reference, "manifest_sha256") + ".json");
    for (const auto& [name, bytes] : content)
      trusted.repository.add_target(trusted.repository.targets, name, bytes);
    trusted.repository.publish_update();
    trusted.reopen(server);
  }
  void clear() const {
    fs::remove_all(root);
    for (const auto* folder : {"downloads", "download-intents", "manifests"})
      private_directory(root / folder);
  }
  void fetch(TargetDownloads& run, const std::string& name, std::size_t bytes = -1) {
    const json of = name == target ? json() : reference;
    server.content = content[name];
    server.sends = bytes;
    trusted.client->download(
        name, downloads, {}, run.observer(name, of),
        {.resume_scope = launcher_download_resume_scope(name, of), .admission = {}});
  }
  json leave_partial(TargetDownloads& run) {
    clear();
    EXPECT_EQ(code_of([&] { fetch(run, packed, 65536); }), "network");
    return launcher_download_receipts(root).begin()->second["receipt"];
  }
};

/// Every prefix is known under a temporary name, under the final one the whole alone. Each byte of
/// the head and of these members (none given: of all) is looked at.
template <typename Code>
void expect_known_at_each_length(const std::string& name, const std::string& text,
                                 const std::vector<std::string>& members, Code&& code) {
  std::string known(text.size(), members.empty() ? 'x' : ' ');
  known.replace(0, 17, 17, 'x');
  for (const auto& member : members) {
    const std::size_t size = json::parse(text)[member].dump().size();
    known.replace(text.find('"' + member + "\":") + member.size() + 3, size, size, 'x');
  }
  const std::string refused = "launcher_download_uncertain";
  for (std::size_t length = 0; length <= text.size(); ++length) {
    std::string cut = text.substr(0, length);
    EXPECT_EQ(code(name + torn, cut), "") << cut;
    EXPECT_EQ(code(name, cut), length < text.size() ? refused : "") << cut;
    if (length == 0 || known[length - 1] == ' ') continue;
    cut.back() ^= 1;
    EXPECT_EQ(code(name + torn, cut), refused) << cut;
  }
  EXPECT_EQ(code(name + torn, text + '~'), refused);
}

TEST_F(Ownership, KnowsItsOwnWritesWhereverTheyAreCut) {
  TargetDownloads run(root);
  const json prepared = leave_partial(run), complete = damaged(prepared, R"(/phase "complete")");
  const std::string nonce = prepared["nonce"], text = complete.dump();
  std::map<std::string, std::string> beside;
  const auto group = [&](const std::string& name, const std::string& bytes) {
    auto files = beside;
    files[name] = bytes;
    return code_of([&] {
      const json best = parse_target_download_receipt_group(nonce, files)["receipt"];
      EXPECT_EQ(best, bytes == text ? complete : beside.empty() ? json() : prepared);
    });
  };
  expect_known_at_each_length(nonce + ".json", text, {"kind", "schema_version"}, group);
  beside[nonce + ".json"] = prepared.dump();
  expect_known_at_each_length(nonce + ".json", text, {}, group);

  const std::string name = resume_record_name(text_member(prepared, "temporary"));
  expect_known_at_each_length(
      name, read_file(downloads / name, 16384),
      {"authorization", "kind", "schema_version", "scope_sha256", "target", "temporary"},
      [&](const std::string& file, const std::string& bytes) {
        return code_of([&] { parse_target_download_resume_files(prepared, {{file, bytes}}); });
      });
}

TEST_F(Ownership, RefusesWhatItCannotExplain) {
  json receipt;
  fs::path partial, held;
  std::string record, nonce;
  std::optional<LauncherDownloads> run;
  const auto add = [&](const std::string& folder, const std::string& end, int count) {
    while (count-- > 0) put_file(root / folder / (random_id() + end), "");
  };
  const auto beside = [&](const fs::path& path, const std::string& damage) {
    const json other = damaged(json::parse(read_file(path, 16384)), damage);
    put_file(path.string() + torn, other.dump());
  };
  const auto say = [&](const char* state, const std::string& id) {
    run->observer(packed, reference)(state, receipt["authorization"], partial_name(packed, id));
  };
  const auto fail_often = [&](bool with_bytes) {
    for (int count = 0; count < 31; ++count) {
      const std::string id = random_id();
      say("prepared", id);
      if (with_bytes) put_file(downloads / partial_name(packed, id), "");
    }
    run.emplace(root);
  };
  const auto receipts = [&] { return launcher_download_receipts(root).size(); };
  const auto phase = [&] { return json::parse(read_file(held, 16384))["phase"]; };
  const auto keep = [](bool kept) { require(kept, "a receipt", "is gone"); };
  const auto retire = [&](const fs::path& path, const std::string& bytes) {
    fetch(*run, packed);
    put_file(manifest, content[target]);
    put_file(path, bytes);
    run->retire(reference);
  };
  const std::vector<std::pair<std::string, std::function<void()>>> rows = {
      {"Unknown download receipt names", [&] { add("download-intents", ".txt", 1); }},
      {"", [&] { add("download-intents", ".json" + torn, 63); }},
      {"count exceeds its scan bound", [&] { add("download-intents", ".json" + torn, 64); }},
      {"", [&] { add("downloads", "", 94); }},
      {"Target resume metadata scan", [&] { add("downloads", "", 95); }},
      {"Unknown resume metadata names", [&] { put_file(record + ".bak", ""); }},
      {"Resume metadata differs", [&] { beside(record, "/authorization/length 300000"); }},
      {"Resume checkpoints disagree", [&] { beside(record, "/identity [1,2]"); }},
      {"allocation_changed", [&] { fs::resize_file(partial, 100001); }},
      {"writes disagree", [&] { beside(held, "/authorization/length 7"); }},
      {"filename differs", [&] { fs::rename(held, root / download_receipt_path(random_id())); }},
      {"ownership changed before verification", [&] { say("prepared", nonce); }},
      {"unchanged prepared receipt", [&] { fs::remove(record), say("resumed", nonce); }},
      {"already belongs", [&] { run.emplace(root), say("prepared", nonce); }},
      {"launcher_storage_full",
       [&] { add("download-intents", ".json" + torn, 31), say("prepared", random_id()); }},
      {"launcher_storage_full", [&] { fail_often(true), say("prepared", random_id()); }},
      {"", [&] { fail_often(false), say("prepared", random_id()), keep(receipts() == 2); }},
      {"", [&] { run.emplace(root), say("complete", random_id()), keep(phase() == "prepared"); }},
      {"", [&] { retire(held.string() + torn, ""), keep(fs::exists(held)); }},
      {"matching native manifest", [&] { retire(manifest, content[target] + ' '); }},
      {"reappeared", [&] { retire(partial, ""); }},
      {"hash_mismatch", [&] { retire(downloads / packed, std::string(100000, 'b')); }},
      {"Download receipt changed", [&] { retire(held, receipt.dump()); }}};
  for (const auto& [words, damage] : rows) {
    receipt = leave_partial(run.emplace(root));
    partial = downloads / text_member(receipt, "temporary");
    record = resume_record_name(partial.string());
    held = root / download_receipt_path(nonce = receipt["nonce"]);
    expect_words(words, {}, [&, &act = damage] { act(), launcher_download_receipts(root); });
  }
  expect_answers(R"(|/phase "complete"|/authorization/length 1073741824
Unknown target download|[]|/more 1|/schema_version 2|/kind "x"|/nonce "0"|/phase "resumed"|/target 7
differs from its owned nonce|/temporary "one.tar.zst.partial"|/target "two.tar.zst"
known bounds|/authorization/length -1|/authorization/length 1073741825
Unknown download hash|/authorization/hashes/md5 "0"|/authorization/hashes/sha256 "0"
no known manifest|/reference null|/reference/more 1|/reference/manifest_sha256 "0")",
                 [&](auto& d) { validate_target_download_receipt(damaged(receipt, d)); });
}

}  // namespace tavro::download_ownership_test
