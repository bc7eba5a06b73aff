#pragma once

namespace opal {

/// Registers the products of the playing library with the object factory; once, however often it is
/// called.
void RegisterProductionObjects();

}  // namespace opal
