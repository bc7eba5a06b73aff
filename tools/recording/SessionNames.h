#pragma once

#include <string_view>

#include "Common/SessionEvents.h"

/// The words that stand in a recording for the values of enumerations (docs/RECORDING.md).
namespace opal::recording {

/// The word; nullptr for a value that is none of the enumeration.
const char* Name(RequestPurpose value);
const char* Name(RequestEnd value);
const char* Name(SwitchingRule value);
const char* Name(SwitchingCallEvent::Kind value);
const char* Name(SessionState value);
const char* Name(OPALStreamType value);
const char* Name(OPALPlayRate value);

/// False, and `*value` as it was, for a word that is none of them.
bool FromName(std::string_view name, RequestPurpose* value);
bool FromName(std::string_view name, RequestEnd* value);
bool FromName(std::string_view name, SwitchingRule* value);
bool FromName(std::string_view name, SwitchingCallEvent::Kind* value);
bool FromName(std::string_view name, SessionState* value);
bool FromName(std::string_view name, OPALStreamType* value);
bool FromName(std::string_view name, OPALPlayRate* value);

}  // namespace opal::recording
