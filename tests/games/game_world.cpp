#include "games/game_world.h"

#include <openssl/evp.h>

#include "documents/encrypted_archive.h"
#include "platform/files/durable_files.h"
#include "platform/host/native_platform.h"

namespace tavro::games_test {
namespace {

constexpr char key_bytes[] = "0123456789abcdef0123456789abcdef";

std::string sealed_record(const EncryptedHead& head, std::uint64_t number, std::string_view plain) {
  const auto nonce = head.nonce(number);
  const std::string aad = head.to_bytes();
  std::string sealed(plain.size() + kAuthenticationTagBytes, '\0');
  auto* out = reinterpret_cast<unsigned char*>(sealed.data());
  const auto in = [](std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
  };
  int count = 0;
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  EVP_EncryptInit_ex2(context, EVP_chacha20_poly1305(), in(key_bytes), nonce.data(), nullptr);
  EVP_EncryptUpdate(context, nullptr, &count, in(aad), static_cast<int>(aad.size()));
  EVP_EncryptUpdate(context, out, &count, in(plain), static_cast<int>(plain.size()));
  EVP_EncryptFinal_ex(context, out + count, &count);
  EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, kAuthenticationTagBytes, out + plain.size());
  EVP_CIPHER_CTX_free(context);
  return sealed;
}

std::string encrypted(const std::string& archive) {
  EncryptedHead head{archive.size(), digest(archive, "sha256"), {1, 2, 3, 4}};
  std::string file = head.to_bytes();
  for (std::size_t at = 0; at < archive.size(); at += kEncryptedChunkBytes)
    file += sealed_record(head, at / kEncryptedChunkBytes,
                          std::string_view(archive).substr(at, kEncryptedChunkBytes));
  return file;
}

json described(const std::string& target, std::string_view bytes) {
  return {{"target", target}, {"length", bytes.size()}, {"sha256", digest(bytes, "sha256")}};
}

}  // namespace

const std::string& GameServer::file(std::string_view remote) const {
  const auto name = remote.substr(remote.rfind('/') + 1);
  return files.at(std::string(name.substr(0, name.find('.'))));
}

void GameServer::download(std::string_view remote, const fs::path& to, unsigned long long size,
                          const Progress&) {
  AllocatedFile target(to, size, {});
  target.write(file(remote));
  target.finish(false);
}

void GameServer::download_into(std::string_view remote, AllocatedFile& target,
                               unsigned long long offset, const Progress& progress,
                               const std::function<void(std::string_view)>& on_bytes,
                               const std::function<void()>&) {
  const std::string& content = file(remote);
  const std::size_t end = std::min(content.size(), sends);
  for (std::size_t at = offset; at < end; at += kStreamBlock) {
    const auto block = std::string_view(content).substr(at, std::min(kStreamBlock, end - at));
    target.write(block);
    on_bytes(block);
    sent += block.size();
    require(!progress || progress(at, content.size()), "cancelled", "");
  }
  require(end == content.size(), "network", "cut");
}

Build build_of(const std::string& id, const std::string& script) {
  Build build{id, {}};
  build.files = {{"bin/run", "#!/bin/sh\n# " + id + "\n" + script + "\n", 0755},
                 {"data/level", id + " level"},
                 {"data/music", std::string(3000, id.back())}};
  return build;
}

GameWorld::GameWorld() {
  catalog.platform = native_platform();
  trusted.limits.metadata_bytes = 1048576;
  private_directory(data);
}

json GameWorld::manifest_of_build(const Build& build) {
  const std::string archive = zstd_of(tar_of(build.files));
  const std::string target = "game-" + game + "-" + build.id + ".tar.zst";
  json manifest = {{"schema_version", 1},
                   {"minimum_launcher", 1},
                   {"game_id", game},
                   {"display_name", "Space"},
                   {"build_id", build.id},
                   {"platform", native_platform()},
                   {"executable", build.files[0].path},
                   {"archive", described(target, archive)}};
  manifest["archive"]["format"] = kSnapshotFormat;
  std::uint64_t expanded = 0;
  for (const TarEntry& file : build.files) {
    manifest["files"].push_back({{"path", file.path},
                                 {"length", file.content.size()},
                                 {"mode", file.mode},
                                 {"sha256", digest(file.content, "sha256")}});
    expanded += file.content.size();
  }
  manifest["expanded_length"] = expanded;
  if (build.sdk) manifest["sdk"] = {{"required", true}, {"abi_version", 1}};
  if (!build.encrypted) {
    put(target, archive);
    return manifest;
  }
  const std::string sealed = encrypted(archive);
  const std::string key(key_bytes, kArchiveKeyBytes);
  manifest["encrypted"] = {{"format", kChunkedDecoder},
                           {"artifact", described(target + ".sealed", sealed)},
                           {"key", described(target + ".key", key)}};
  put(target + ".sealed", sealed);
  put(target + ".key", key);
  return manifest;
}

void GameWorld::put(const std::string& target, const std::string& bytes) {
  trusted.repository.add_target(trusted.repository.targets, target, bytes);
  server.files[digest(bytes, "sha256")] = bytes;
}

void GameWorld::put_manifest(const json& manifest, const std::string& channel) {
  const std::string text = manifest.dump();
  const std::string sha256 = digest(text, "sha256");
  put(game_manifest_target(game, native_platform(), channel), text);
  put(game_manifest_target(game, native_platform(), sha256), text);
  const GameManifest read = GameManifest::parse(manifest);
  CatalogGame& listed = catalog.games[game];
  listed.game_id = game;
  listed.display_name = read.display_name;
  listed.channels[channel] = {read.build_id, game_download_length(read), read.expanded_length,
                              sha256, text.size()};
  put(game_catalog_target(native_platform()), catalog.to_json().dump());
  trusted.repository.publish_update();
}

void GameWorld::publish(const Build& build, const std::string& channel) {
  manifests[build.id] = manifest_of_build(build);
  put_manifest(manifests[build.id], channel);
}

void GameWorld::clear() {
  fs::remove_all(data);
  private_directory(data);
  save_something();
}

bool GameWorld::stands(const std::string& build) const {
  const auto differences = library().verify(game, {});
  return record().active->build_id == build && differences.is_sound() &&
         differences.foreign_count == 0;
}

std::vector<std::string> GameWorld::unexplained() const {
  std::set<std::string> known = {"games/" + game + "/record.json", "games/" + game + "/game.lock",
                                 "verified-manifests/manifests.lock", "game-offers/offers.lock",
                                 "game-offers/" + game_catalog_target(native_platform())};
  std::vector<GameVersion> versions;
  if (const auto found = GameStore(paths()).find()) {
    for (const auto& version : {found->active, found->previous})
      if (version) versions.push_back(*version);
    if (found->preload) {
      versions.push_back(*found->preload);
      known.insert("games/" + game + "/ready.json");
    }
  }
  for (const GameVersion& version : versions) {
    const std::string folder = "games/" + game;
    known.insert("verified-manifests/application-" + version.manifest_ref + ".json");
    known.insert(folder + "/leases/" + version.version + ".lock");
    for (const json& file : manifests.at(version.build_id).at("files"))
      for (const char* place : {"/versions/", "/staging/"})
        known.insert(folder + place + version.version + "/" + file.at("path").get<std::string>());
  }
  std::vector<std::string> found;
  for (const auto& [path, content] : tree_content(data))
    if (!known.contains(path) && !path.starts_with("userdata/")) found.push_back(path);
  return found;
}

void GameWorld::save_something() const {
  private_directory(paths().saves);
  write_bytes(paths().saves / "slot1", "progress");
}

bool GameWorld::saves_stand() const {
  return tree_content(paths().player) ==
         std::map<std::string, std::string>{{"saves/slot1", "progress"}};
}

}  // namespace tavro::games_test
