// What the service costs as a process: requests over the bus, start-up, memory, loading. Run it in
// a network namespace of its own: it puts rules into the kernel's tables.

#include "bus_rows.h"

#include "platform/linux/notify.h"

#include <cstring>
#include <unistd.h>

int main(int argc, char **argv) {
    if (argc == 2 && strcmp(argv[1], "--ready") == 0) {
        notify::send("READY=1");
        return pause();
    }
    const Programs programs = programs_beside(argv[0]);
    print_request_rows(programs);
    print_start_row(programs);
    print_memory_rows(programs);
    print_load_rows(programs);
    return 0;
}
