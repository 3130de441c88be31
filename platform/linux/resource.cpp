// The resource service of one process: its owners, by index, and their announcements on the bus.

#include "platform/resource.h"

#include "platform/ebus.h"
#include "platform/sys.h"

#include <cstring>

namespace {

struct Owner {
    Owner *next;
    const void *record;
    uint32_t type;
    uint32_t index_type;
    resource_read_t read;
    char *index() { return reinterpret_cast<char *>(this + 1); }
};

Owner *owners;

Owner **find_owner(uint32_t type, uint32_t index_type, const char *index) {
    Owner **link = &owners;
    while (*link && !((*link)->type == type && (*link)->index_type == index_type &&
                      strcmp((*link)->index(), index) == 0))
        link = &(*link)->next;
    return link;
}

void forget(Owner **link) {
    if (Owner *owner = *link) {
        *link = owner->next;
        sys_mem_free(owner);
    }
}

void announce(const char *name, const char *state) {
    blob_buf buf{};
    if (blobmsg_buf_init(&buf) == 0 && blobmsg_add_string(&buf, "name", name) == 0 &&
        blobmsg_add_string(&buf, "state", state) == 0)
        ebus_send_event("resource.access-list", buf.head);
    blob_buf_free(&buf);
}

// Copies a text with its NUL; the number of bytes, or -1 when there is no room.
int32_t copy_text(const char *text, size_t length, void *to, uint32_t size) {
    if (length >= size)
        return -1;
    memcpy(to, text, length);
    static_cast<char *>(to)[length] = '\0';
    return static_cast<int32_t>(length + 1);
}

} // namespace

int32_t __RESOURCE_TYPE_ACCESSLIST_encode(const void *index, void *bytes, uint32_t size) {
    const auto *text = static_cast<const char *>(index);
    return text && bytes ? copy_text(text, strlen(text), bytes, size) : -1;
}

int32_t __RESOURCE_TYPE_ACCESSLIST_decode(const void *bytes, uint32_t size, void *index,
                                          uint32_t index_size) {
    const auto *text = static_cast<const char *>(bytes);
    if (!text || !index || strnlen(text, size) == size)
        return -1;
    return copy_text(text, strlen(text), index, index_size);
}

int32_t __resource_register_owner(const void *owner, uint32_t type, resource_encode_t,
                                  resource_decode_t, uint32_t index_type, const void *index,
                                  resource_write_t, resource_read_t read) {
    if (!index || index_type != RESOURCE_INDEX_TYPE_STRING)
        return -1;
    const auto *text = static_cast<const char *>(index);
    auto *added = static_cast<Owner *>(sys_mem_malloc(sizeof(Owner) + strlen(text) + 1));
    if (!added)
        return -1;
    forget(find_owner(type, index_type, text));
    *added = {owners, owner, type, index_type, read};
    memcpy(added->index(), text, strlen(text) + 1);
    owners = added;
    return 0;
}

int32_t resource_synchronize(uint32_t, const void *resource, const char *name) {
    if (!resource)
        forget(find_owner(RESOURCE_TYPE_ACCESSLIST, RESOURCE_INDEX_TYPE_STRING, name));
    announce(name, resource ? "changed" : "removed");
    return 0;
}

int32_t resource_read(uint32_t type, uint32_t index_type, const void *index, void *param1,
                      void *param2, void *param3, void *param4) {
    if (!index)
        return -1;
    const Owner *owner = *find_owner(type, index_type, static_cast<const char *>(index));
    return owner && owner->read
               ? owner->read(type, index_type, index, param1, param2, param3, param4)
               : -1;
}
