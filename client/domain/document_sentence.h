#pragma once

#include <string>

#include "domain/error.h"

namespace tavro {

/// The message of a failure to read a document, for a person: in place of the parser's words, which
/// name what nobody wrote, that the text is no whole document.
std::string document_sentence(const Error& error);

}  // namespace tavro
