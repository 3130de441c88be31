// The rows that are measured on whole processes.
#pragma once

#include "processes.h"

inline constexpr int kRounds = 7;

// One request over the bus, against a bare relay of four hops between three processes.
void print_request_rows(const Programs &programs);

// From the start of the daemon until it is ready, against a process that says so at once.
void print_start_row(const Programs &programs);

// Resident memory a rule, against the record and the allocator's word.
void print_memory_rows(const Programs &programs);

// Loading files of rules, beside what else loads rules on this machine.
void print_load_rows(const Programs &programs);
