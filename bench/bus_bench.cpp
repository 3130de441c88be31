// What the service costs as a process: requests over the bus, start-up, memory, loading. Run it in
// a network namespace of its own: it puts rules into the kernel's tables.

#include "bus_rows.h"

#include <algorithm>
#include <string_view>

namespace {

struct Group {
    const char *name;
    void (*print)(const Programs &);
};

constexpr Group kGroups[] = {{"requests", print_request_rows},
                             {"start", print_start_row},
                             {"memory", print_memory_rows},
                             {"load", print_load_rows}};

} // namespace

// Without arguments all rows, else those of the groups named.
int main(int argc, char **argv) {
    const Programs programs = programs_beside(argv[0]);
    for (const Group &group : kGroups)
        if (argc == 1 || std::count(argv + 1, argv + argc, std::string_view(group.name)) > 0)
            group.print(programs);
    return 0;
}
