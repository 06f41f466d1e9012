#pragma once

#include <string>

namespace host {

/** Sets a system property of this process; any thread, seen by the next read. */
void setProperty(const std::string& key, const std::string& value);
void clearProperty(const std::string& key);

}  // namespace host
