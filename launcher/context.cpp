#include "context.h"

#include <utility>

#include "domain/error.h"
#include "download/repository_client.h"
#include "preferences/settings.h"

namespace tavro::program {

Context::Context(std::filesystem::path data_root, std::string launcher_build, bool json_wanted,
                 std::function<bool()> stop)
    : root(std::move(data_root)),
      build(std::move(launcher_build)),
      as_json(json_wanted),
      stop_(std::move(stop)) {
  if (!as_json) progress_line_ = std::make_unique<ProgressLine>(error_stream_look());
}

Context::~Context() = default;

std::string Context::option(std::string_view name) const {
  const auto found = line.options.find(name);
  return found == line.options.end() ? std::string() : found->second;
}

void Context::require_going_on() const {
  require(!stopped(), "cancelled", "Cancelled; what was done so far stays, and is gone on with");
}

bool Context::show(std::string_view phase, unsigned long long done, unsigned long long total) {
  const bool goes_on = !watcher_ || watcher_(phase, done, total);
  if (progress_line_) progress_line_->show(phase, done, total);
  return goes_on && !stopped();
}

void Context::watch(GameProgress watcher, std::function<bool()> stop) {
  watcher_ = std::move(watcher);
  watcher_stop_ = std::move(stop);
}

GameProgress Context::progress() {
  return [this](std::string_view phase, auto done, auto total) { return show(phase, done, total); };
}

Progress Context::progress_of(std::string phase) {
  return
      [this, phase = std::move(phase)](auto done, auto total) { return show(phase, done, total); };
}

void Context::clear_progress() {
  if (progress_line_) progress_line_->clear();
}

void Context::label_progress(std::string_view label) {
  if (progress_line_) progress_line_->set_label(label);
}

TufClient& Context::tuf() {
  if (!repository_)
    repository_ = std::make_unique<RepositoryClient>(root, budget_,
                                                     settings_or_defaults(root).download_limit);
  return repository_->tuf();
}

void Context::close_repository() { repository_.reset(); }

}  // namespace tavro::program
