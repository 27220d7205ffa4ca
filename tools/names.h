// Words for the library's enumerations.
#ifndef ORN_TOOLS_NAMES_H
#define ORN_TOOLS_NAMES_H

#include "orn/types.h"

#include <string>
#include <vector>

namespace orn_tool {

/// The words are what the command line takes, what JSON has, and what people read.
const char* wordFor(ORN_3_30::symbol_kind_t kind);
const char* wordFor(ORN_3_30::symbol_visibility_t visibility);
const char* wordFor(ORN_3_30::exec_format_t format);
const char* wordFor(ORN_3_30::arch_t architecture);
const char* wordFor(ORN_3_30::language_t language);
/// `type`: a value of symbol_file_type_t.
const char* wordForSymbolFile(unsigned type);
/// `state`: what ISymbolFileToResolve::state() gives.
const char* wordForCandidate(unsigned state);

/// The words that --arch takes. Those of GPU binaries are numbers: one word means all of them.
const std::vector<std::string>& architectureWords();
/// What one of them means.
ORN_3_30::arch_t architectureFor(const std::string& word);

/// The words that --kind takes.
const std::vector<std::string>& kindWords();
/// The mask of one of them.
ORN_3_30::symbol_kind_t kindMask(const std::string& word);

} // namespace orn_tool

#endif
