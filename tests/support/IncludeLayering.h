#pragma once

#include <string>
#include <vector>

namespace vantor::test
{

// Checks the quoted includes of a source tree against the layers:
//   common/            includes only common/;
//   src/edr/ (model)   common/ and edr/, never edr/daemon/;
//   src/audit/         common/, edr/ and audit/;
//   src/fim/, src/ioc/ common/, edr/ and their own folder;
//   src/edr/daemon/    anything.
// Everywhere, a quoted include must be rooted: it begins with a layer name
// (common, edr, audit, fim, ioc) or with tests/, tools/ or bench/, and a
// bare name that exists twice in the tree is reported as ambiguous.
// Answers one line per violation, "<file>:<line>: <reason>", empty when the
// tree is clean.
std::vector<std::string> CheckIncludeLayering(const std::string& root);

} // namespace vantor::test
