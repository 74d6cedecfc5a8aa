#include "domain/error.h"
#include "domain/input.h"
#include "publisher/commands.h"
#include "publisher/keys.h"
#include "publisher/output.h"
#include "publisher/root_metadata.h"
#include "tuf/client_limits.h"

namespace tavro {
namespace {

std::string type_of(const json& record) { return record.at("keytype").get<std::string>(); }

CommandResult new_key(const Arguments& arguments, const CommandContext&) {
  const std::string type = arguments.has("--type") ? arguments.value("--type") : "ed25519";
  const SigningKey key = SigningKey::generate(key_type(type));
  const std::filesystem::path path = path_option(arguments, "--out");
  key.store(path);
  require(SigningKey::load(path).id() == key.id(), "key_file", "The key file reads back changed");
  return {
      "Created the " + type_of(key.record()) + " key " + key.id() + " in " + path_utf8(path) + ".",
      {{"key_id", key.id()}, {"path", path_utf8(path)}, {"record", key.record()}}};
}

CommandResult show_key(const Arguments& arguments, const CommandContext&) {
  const json record = load_key_record(path_option(arguments, "--key"));
  return {"The " + type_of(record) + " key " + key_id(record) + ".",
          {{"key_id", key_id(record)}, {"record", record}}};
}

CommandResult export_key(const Arguments& arguments, const CommandContext&) {
  const json record = load_key_record(path_option(arguments, "--key"));
  const std::filesystem::path path = path_option(arguments, "--out");
  create_document(path, document_text(record));
  require(load_key_record(path) == record, "key_file", "The public record reads back changed");
  return {"Wrote the public record of key " + key_id(record) + " to " + path_utf8(path) + ".",
          {{"key_id", key_id(record)}, {"path", path_utf8(path)}, {"record", record}}};
}

/// The keys of a role: its own, or those of every role.
std::vector<std::string> key_files(const Arguments& arguments, const std::string& role) {
  const std::vector<std::string>& own = arguments.values("--" + role + "-key");
  const std::vector<std::string>& files = own.empty() ? arguments.values("--key") : own;
  require(!files.empty(), "usage",
          [&] { return "Choose a key with --" + role + "-key FILE or --key FILE"; });
  return files;
}

RoleKeys role_keys(const Arguments& arguments, const std::string& role) {
  RoleKeys keys;
  for (const std::string& file : key_files(arguments, role))
    keys.records.push_back(load_key_record(path_from_utf8(file)));
  keys.threshold = arguments.number("--" + role + "-threshold", 1, most_threshold, 1);
  return keys;
}

CommandResult new_root(const Arguments& arguments, const CommandContext&) {
  RootRequest request;
  request.expires = root_expiry(arguments);
  request.consistent_snapshot = !arguments.has("--no-consistent-snapshot");
  request.root = role_keys(arguments, "root");
  request.timestamp = role_keys(arguments, "timestamp");
  request.snapshot = role_keys(arguments, "snapshot");
  request.targets = role_keys(arguments, "targets");

  std::vector<SigningKey> signers;
  for (const std::string& file : key_files(arguments, "root"))
    signers.push_back(SigningKey::load(path_from_utf8(file)));
  std::vector<const SigningKey*> borrowed;
  for (const SigningKey& signer : signers) borrowed.push_back(&signer);
  const json document = sign_metadata(root_body(request), borrowed);
  check_root(document);
  const std::string text = document_text(document);
  require(text.size() <= client_limits.root_bytes, "size_limit",
          [] { return "Clients take a root of " + std::to_string(root_limit) + " bytes at most"; });

  const std::filesystem::path path = path_option(arguments, "--out");
  create_document(path, text);
  check_root(parse_json(read_file(path, client_limits.root_bytes), client_limits.root_bytes));
  return {"Signed root version 1, which expires at " + request.expires + ", in " + path_utf8(path) +
              ".",
          {{"path", path_utf8(path)}, {"version", 1}, {"expires", request.expires}}};
}

OptionRule threshold_rule(std::string_view name) {
  return {name, "N", "Signatures that the role needs; 1 unless given"};
}

}  // namespace

std::string root_expiry(const Arguments& arguments) {
  require(arguments.has("--expires") != arguments.has("--days"), "usage",
          "Choose the expiry with either --expires TIME or --days N");
  if (arguments.has("--expires")) return arguments.value("--expires");
  return expiry_in_days(static_cast<unsigned>(arguments.number("--days", 1, most_days, 1)));
}

std::vector<PublishCommand> key_commands() {
  const OptionRule key{"--key", "FILE", "The key file, private or public", OptionUse::required};
  return {
      {"keys new",
       "Create a signing key",
       {{"--out", "FILE", "The new private key, in PEM, mode 0600", OptionUse::required},
        {"--type", "TYPE", "ed25519 (unless given), ecdsa (P-256) or rsa (3072 bits)"}},
       new_key},
      {"keys show", "Tell the id and the type of a key", {key}, show_key},
      {"keys public",
       "Write the public record of a key, for those who list it without holding it",
       {key, {"--out", "FILE", "The new public record, in JSON", OptionUse::required}},
       export_key},
  };
}

std::vector<PublishCommand> root_commands() {
  return {
      {"root new",
       "Sign the first root metadata of a repository",
       {{"--out", "FILE", "The new root metadata", OptionUse::required},
        {"--expires", "TIME", "When it expires, in UTC: 2030-01-01T00:00:00Z"},
        {"--days", "N", "The same, counted from now"},
        {"--key", "FILE", "A key of every role without keys of its own", OptionUse::repeated},
        {"--root-key", "FILE", "A private key of the root role", OptionUse::repeated},
        {"--targets-key", "FILE", "A key of the targets role, private or public",
         OptionUse::repeated},
        {"--snapshot-key", "FILE", "A key of the snapshot role", OptionUse::repeated},
        {"--timestamp-key", "FILE", "A key of the timestamp role", OptionUse::repeated},
        threshold_rule("--root-threshold"),
        threshold_rule("--targets-threshold"),
        threshold_rule("--snapshot-threshold"),
        threshold_rule("--timestamp-threshold"),
        {"--no-consistent-snapshot", "", "Serve files under their plain names", OptionUse::flag}},
       new_root},
  };
}

}  // namespace tavro
