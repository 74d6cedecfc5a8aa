#include "games/game_record.h"

#include <algorithm>
#include <array>
#include <utility>

#include "documents/game_catalog.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"

namespace tavro {
namespace {

constexpr char invalid[] = "invalid_state";
constexpr char record_kind[] = "tavro-game-record";
constexpr std::size_t digest_characters = 64;
constexpr std::size_t nonce_characters = 32;
constexpr std::array<std::string_view, 5> outcome_names = {"clean", "exited", "killed",
                                                           "never_ready", "unknown"};

template <typename Value, typename Reader>
std::optional<Value> optional_member(const json& document, const char* key, Reader&& reader) {
  const json& value = document.at(key);
  if (value.is_null()) return std::nullopt;
  return reader(value);
}

template <typename Value>
json optional_json(const std::optional<Value>& value) {
  return value ? value->to_json() : json();
}

GameDeferral read_deferral(const json& value) {
  GameDeferral deferral{text_member(value, "build_id"), value.at("until").get<std::uint64_t>()};
  validate_identifier(deferral.build_id);
  return deferral;
}

GameOutcome outcome_of(const std::string& name) {
  const auto found = std::find(outcome_names.begin(), outcome_names.end(), name);
  require(found != outcome_names.end(), invalid, "A start has an unknown outcome");
  return static_cast<GameOutcome>(found - outcome_names.begin());
}

/// A record without the second member is of a removal that keeps them.
std::optional<PlayerData> read_removal(const json& document) {
  if (!document.at("removing").get<bool>()) return std::nullopt;
  return document.value("removing_player_data", false) ? PlayerData::removed : PlayerData::kept;
}

GameRecord read_record(const json& document) {
  GameRecord record;
  record.game_id = text_member(document, "game_id");
  record.channel = text_member(document, "channel");
  validate_game_channel(record.channel);
  record.active = optional_member<GameVersion>(document, "active", GameVersion::parse);
  record.previous = optional_member<GameVersion>(document, "previous", GameVersion::parse);
  record.preload = optional_member<GameVersion>(document, "preload", GameVersion::parse);
  for (const json& version : document.at("retired"))
    record.retired.push_back(GameVersion::parse(version));
  record.deferral = optional_member<GameDeferral>(document, "deferral", read_deferral);
  record.last_start = optional_member<GameStartSeen>(document, "last_start", GameStartSeen::parse);
  record.removing = read_removal(document);
  require(document.at("installed") == record.active.has_value() &&
              record.retired.size() <= kMaxRetiredVersions + 2,
          invalid, "The record of the game contradicts itself");
  return record;
}

}  // namespace

GameVersion GameVersion::parse(const json& value) {
  GameVersion version{text_member(value, "version"), text_member(value, "build_id"),
                      text_member(value, "manifest_ref"), text_member(value, "manifest_target")};
  validate_identifier(version.version);
  validate_identifier(version.build_id);
  require(is_lower_hex(version.manifest_ref, digest_characters), invalid,
          "A version of the game has no manifest digest");
  if (!version.manifest_target.empty()) validate_relative_path(version.manifest_target, true);
  return version;
}

json GameVersion::to_json() const {
  return {{"version", version},
          {"build_id", build_id},
          {"manifest_ref", manifest_ref},
          {"manifest_target", manifest_target}};
}

std::string_view outcome_name(GameOutcome outcome) {
  return outcome_names.at(static_cast<std::size_t>(outcome));
}

GameStartSeen GameStartSeen::parse(const json& value) {
  GameStartSeen seen;
  seen.session_id = text_member(value, "session_id");
  require(is_lower_hex(seen.session_id, nonce_characters), invalid,
          "A start of the game has no session");
  seen.build_id = text_member(value, "build_id");
  validate_identifier(seen.build_id);
  seen.started = value.at("started").get<std::uint64_t>();
  seen.ended = value.at("ended").get<std::uint64_t>();
  seen.outcome = outcome_of(text_member(value, "outcome"));
  seen.status = value.at("status").get<int>();
  seen.ready_seen = value.at("ready_seen").get<bool>();
  return seen;
}

json GameStartSeen::to_json() const {
  return {{"session_id", session_id},
          {"build_id", build_id},
          {"started", started},
          {"ended", ended},
          {"outcome", outcome_name(outcome)},
          {"status", status},
          {"ready_seen", ready_seen}};
}

GameRecord GameRecord::parse(const json& document, std::string_view game_id) {
  require(has_integer(document, "schema_version", 1), "unsupported_schema",
          "The record of the game has another schema; it was kept as it is");
  require(has_text(document, "kind", record_kind) && has_text(document, "game_id", game_id),
          invalid, "This is no record of the game");
  return read_fields(invalid, "The record of the game has missing or malformed fields",
                     [&] { return read_record(document); });
}

json GameRecord::to_json() const {
  json waiting = json::array();
  for (const GameVersion& version : retired) waiting.push_back(version.to_json());
  json deferred;
  if (deferral) deferred = {{"build_id", deferral->build_id}, {"until", deferral->until}};
  return {{"schema_version", 1},
          {"kind", record_kind},
          {"game_id", game_id},
          {"installed", active.has_value()},
          {"channel", channel},
          {"active", optional_json(active)},
          {"previous", optional_json(previous)},
          {"preload", optional_json(preload)},
          {"retired", std::move(waiting)},
          {"deferral", std::move(deferred)},
          {"last_start", optional_json(last_start)},
          {"removing", removing.has_value()},
          {"removing_player_data", removing == PlayerData::removed}};
}

bool GameRecord::refers_to(std::string_view manifest_ref) const {
  const auto is_it = [&](const GameVersion& version) {
    return version.manifest_ref == manifest_ref;
  };
  const auto is_this = [&](const std::optional<GameVersion>& version) {
    return version && is_it(*version);
  };
  return is_this(active) || is_this(previous) || is_this(preload) ||
         std::any_of(retired.begin(), retired.end(), is_it);
}

}  // namespace tavro
