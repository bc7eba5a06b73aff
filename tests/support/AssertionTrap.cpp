#include "support/AssertionTrap.h"

namespace opal::test {
namespace {

void Throw(const char* text, const char*, int, const char*) {
    throw AssertionFailure(text);
}

}  // namespace

AssertionTrap::AssertionTrap() : m_previous(SetAssertionHandler(&Throw)) {}

AssertionTrap::~AssertionTrap() {
    SetAssertionHandler(m_previous);
}

}  // namespace opal::test
