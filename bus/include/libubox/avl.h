/* The node of a keyed collection. Records carry one; the collection is the library's business. */
#ifndef LIBUBOX_AVL_H
#define LIBUBOX_AVL_H

#include "list.h"

struct avl_node {
    struct list_head list;
    const void *key;
};

struct avl_tree {
    struct list_head list_head;
    unsigned int count;
};

#endif
