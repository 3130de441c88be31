// What the service costs in process, each row beside its floor.

#include "service_rows.h"

#include "aclapi.h"

int main(int argc, char **argv) {
    ipacl_init();
    Table table;
    add_match_rows(table);
    add_command_rows(table);
    add_text_rows(table);
    add_list_rows(table);
    add_netlink_row(table);
    const int status = table.print(argc, argv);
    if (status == 0)
        print_mispredictions();
    return status;
}
