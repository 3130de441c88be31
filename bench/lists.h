// Lists as the rows of the table need them.
#pragma once

#include "aclapi.h"

#include <cstdint>
#include <string>

// The words of rule number `i`: no two are equal, and no merger fuses them.
std::string standard_command(uint32_t i);
std::string extended_command(uint32_t i);

// A ready list of the registry with `count` rules, made by command. Made once for each name.
ipacl &list_of(const char *name, bool is_standard, uint32_t count);
