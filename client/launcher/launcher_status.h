#pragma once

#include <string>

#include "launcher/launcher_store.h"

namespace tavro {

/// What has not settled in the store, in sentences for a person that say what to do about it: what
/// waits for its first start, what is being tried, what did not start and why. Empty when all has.
/// The record is one of this store.
std::string probation_sentences(const LauncherStore& store, const LauncherRecord& record);

}  // namespace tavro
