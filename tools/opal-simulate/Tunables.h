#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"

namespace opal::simulate {

/// What was asked for cannot be meant.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A set of switching tunables, settable by name.
class Tunables {
  public:
    /// What is in force now.
    static Tunables Current();

    /// "NAME=VALUE", named as in the settings file, times in ms; "agile." or "steady." in front of
    /// the modes' ones. Throws UsageError that names what is wrong.
    void Set(const std::string& assignment);
    /// Puts the set in force, under the bounds that hold for a settings file too.
    void Apply() const;
    /// What was set by name, as it was given.
    std::string Describe() const;
    /// The set as a settings file has it. Throws UsageError for a time that is no whole number of
    /// seconds, which such a file cannot say.
    std::string ToSettingsFile() const;

  private:
    AlgorithmConfig::Global m_global;
    AlgorithmConfig::Mode m_agile;
    AlgorithmConfig::Mode m_steady;
    std::vector<std::string> m_given;
};

/// Every combination of "NAME=V1,V2,..." on top of `base`; at most 100,000, else UsageError.
std::vector<Tunables> Grid(const Tunables& base, const std::vector<std::string>& axes);

}  // namespace opal::simulate
