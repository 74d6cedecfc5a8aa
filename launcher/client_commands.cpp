#include "cleanup/launcher_cleanup.h"
#include "domain/error.h"
#include "handlers.h"
#include "installation/data_folder.h"
#include "launcher/launcher_status.h"
#include "launcher/launcher_store.h"
#include "operation_run.h"
#include "self_update/bootstrap_staging.h"
#include "self_update/bootstrap_update.h"
#include "text_layout.h"

namespace tavro::program {
namespace {

std::string text_of(const json& object, const char* key) {
  return object.at(key).get<std::string>();
}

std::string launcher_sentence(const json& launcher) {
  if (launcher.value("staged", false))
    return "Launcher " + text_of(launcher, "build_id") + " is tried at the next start.";
  return "Launcher " + text_of(launcher, "build_id") + " is the newest.";
}

std::string bootstrap_sentence(const BootstrapStaging& bootstrap) {
  if (bootstrap.status == "staged") return " Bootstrap " + bootstrap.build_id + " is ready.";
  if (bootstrap.status == "pending") return " A bootstrap waits for the next start.";
  if (bootstrap.status == "rejected")
    return " Bootstrap " + bootstrap.build_id +
           " did not start on this machine before, and is left out.";
  return {};
}

Answer update_client(Context& context) {
  context.label_progress("Launcher");
  std::string phase = "asking the repository";
  const Progress progress = [&](auto done, auto total) { return context.show(phase, done, total); };
  const StagingPhase enter = [&](std::string_view name, bool) {
    phase = name;
    context.show(phase, 0, 0);
  };
  const json launcher = LauncherStore(context.root).stage(context.tuf(), progress, enter, false);
  context.label_progress("Bootstrap");
  const auto bootstrap = stage_bootstrap_update(context.root, context.tuf(), progress);
  return {{{"launcher", launcher},
           {"bootstrap",
            {{"staged", bootstrap.staged},
             {"status", bootstrap.status},
             {"build_id", bootstrap.build_id}}}},
          launcher_sentence(launcher) + bootstrap_sentence(bootstrap)};
}

Answer clean_client(Context& context) {
  const auto report =
      clean_launcher_store(context.root, CleanupMode::perform, [&] { return context.stopped(); });
  json document = report.to_json();
  std::vector<std::string> lines = {
      "Removed " + count_text(report.removed.size(), "leftover") + ", " +
      byte_text(document.at("freed_bytes").get<std::uint64_t>()) + "."};
  for (const json& rest : document.at("kept"))
    lines.push_back("Kept " + text_of(rest, "path") + ": " + text_of(rest, "reason") + ".");
  return {std::move(document), line_text(lines)};
}

}  // namespace

Answer self_status(Context& context) {
  const auto store = LauncherStore::for_launch(context.root);
  const std::string obstacle = bootstrap_update_obstacle(context.root);
  const bool pending = bootstrap_update_pending(context.root);
  const bool cleanup = stands(DataPaths(store->root()).launcher / "cleanup.json");
  std::string text = "This is launcher " + context.build + ".";
  const std::string open = probation_sentences(*store, store->record());
  if (!open.empty()) text += " " + open;
  if (!obstacle.empty())
    text += " A new bootstrap waits: " + obstacle;
  else if (pending)
    text += " A new bootstrap is put into place at the next start.";
  if (cleanup) text += " A cleanup was cut off; run self cleanup before the next update.";
  json document = store->status();
  document["running_build_id"] = context.build;
  document["bootstrap_update_pending"] = pending;
  document["bootstrap_update_obstacle"] = obstacle.empty() ? json() : json(obstacle);
  document["cleanup_pending"] = cleanup;
  return {std::move(document), std::move(text)};
}

Answer self_update(Context& context) {
  return as_operation(context, [&] { return update_client(context); });
}

Answer self_cleanup(Context& context) {
  return as_operation(context, [&] { return clean_client(context); });
}

}  // namespace tavro::program
