#pragma once

#include <stdexcept>
#include <string>

#include "Common/Assert.h"

namespace opal::test {

/// A failed assertion of the library, with its text.
class AssertionFailure : public std::logic_error {
  public:
    using std::logic_error::logic_error;
};

/// While it lives, failed assertions throw AssertionFailure instead of aborting.
class AssertionTrap {
  public:
    AssertionTrap();
    ~AssertionTrap();
    AssertionTrap(const AssertionTrap&) = delete;
    AssertionTrap& operator=(const AssertionTrap&) = delete;

  private:
    AssertionHandler m_previous;
};

/// The text of the assertion that `action` fails, or empty if it fails none.
template <typename Action>
std::string AssertionTextOf(Action action) {
    AssertionTrap trap;
    try {
        action();
    } catch (const AssertionFailure& failure) {
        return failure.what();
    }
    return {};
}

}  // namespace opal::test
