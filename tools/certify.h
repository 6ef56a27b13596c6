/// \file
/// vekrun certify: whether a build of the plug-in gives the recorded results, bit for bit.
#pragma once

#include <string>
#include <vector>

namespace vekrun {

struct CertifyRequest {
  std::vector<std::string> types;  ///< only these layer types; empty: all, and the hash over all
  std::string plugin;              ///< path, or empty for the default one
  std::string record;  ///< the recorded certificate, or empty for the one that is installed with the tool
  bool print = false;  ///< print this build's certificate as a record, and compare it with none
  std::string cases;   ///< a layer type: print the hash of each of its cases instead
};

/// Makes the certificate of a plug-in: a fixed set of calls for each layer type, and one hash for each over the results,
/// the log lines (level, file and text) and the bytes of the outputs, where all NaN count as one in what layers compute.
///
/// \return whether it is the recorded one. Throws `UsageError`.
bool Certify(const CertifyRequest& request);

}  // namespace vekrun
