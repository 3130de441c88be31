/* Doubly linked lists whose links lie inside the records. */
#ifndef LIBUBOX_LIST_H
#define LIBUBOX_LIST_H

#include "utils.h"

#ifdef __cplusplus
extern "C" {
#endif

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

static inline void INIT_LIST_HEAD(struct list_head *list) {
    list->next = list;
    list->prev = list;
}

static inline bool list_empty(const struct list_head *list) { return list->next == list; }

/* Links `entry` between two neighbours. */
static inline void list_link(struct list_head *entry, struct list_head *before,
                             struct list_head *after) {
    entry->prev = before;
    entry->next = after;
    before->next = entry;
    after->prev = entry;
}

static inline void list_add(struct list_head *entry, struct list_head *list) {
    list_link(entry, list, list->next);
}

static inline void list_add_tail(struct list_head *entry, struct list_head *list) {
    list_link(entry, list->prev, list);
}

static inline void list_del(struct list_head *entry) {
    /* NOLINTNEXTLINE(clang-analyzer-*): what was freed or unlinked is in no list any more */
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
    entry->next = entry->prev = NULL;
}

static inline void list_del_init(struct list_head *entry) {
    list_del(entry);
    INIT_LIST_HEAD(entry);
}

#define list_entry(pointer, type, member) container_of(pointer, type, member)
#define list_first_entry(list, type, member) list_entry((list)->next, type, member)

#define list_for_each_entry(pos, list, member)                                                     \
    for ((pos) = list_entry((list)->next, __typeof__(*(pos)), member); &(pos)->member != (list);   \
         (pos) = list_entry((pos)->member.next, __typeof__(*(pos)), member))

#define list_for_each_entry_safe(pos, following, list, member)                                     \
    for ((pos) = list_entry((list)->next, __typeof__(*(pos)), member),                             \
        (following) = list_entry((pos)->member.next, __typeof__(*(pos)), member);                  \
         &(pos)->member != (list); (pos) = (following),                                            \
        (following) = list_entry((following)->member.next, __typeof__(*(pos)), member))

#ifdef __cplusplus
}
#endif

#endif
