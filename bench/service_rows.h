// The rows that are measured in process, by what they are about.
#pragma once

#include "table.h"

void add_match_rows(Table &table);
void add_command_rows(Table &table);
void add_text_rows(Table &table);
void add_list_rows(Table &table);
void add_netlink_row(Table &table);

// Counts mispredicted branches on a mixed trace and prints what it found, or why it could not.
void print_mispredictions();
