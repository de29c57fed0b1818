/* Name-owner tracking: a match for the name's NameOwnerChanged signals, then GetNameOwner for its
 * state, both sent without waiting. The bus handles a connection's messages in order, so no
 * change between the two is missed; changes that arrive before the answer are superseded by it.
 * Listeners (the client and service sides) hear of every change. */
#include <string.h>

#include "kelvra-private.h"

#define KV_MAX_LISTENERS 2

struct KVNames {
    GHashTable* watches; /* name -> KVWatch* */
    KVOwnerFunc listeners[KV_MAX_LISTENERS];
    int listenerCount;
    guint64 lastQueryId;
};

static void WatchFree(gpointer data) {
    KVWatch* watch = data;
    sd_bus_slot_unref(watch->match);
    sd_bus_slot_unref(watch->query);
    g_free(watch->name);
    g_free(watch->owner);
    g_free(watch);
}

KVWatch* KvWatchFind(KVHandle* handle, const char* name) {
    return g_hash_table_lookup(handle->names->watches, name);
}

static KVWatch* FindQuery(KVHandle* handle, guint64 queryId) {
    GHashTableIter iter;
    gpointer value;
    g_hash_table_iter_init(&iter, handle->names->watches);
    while (g_hash_table_iter_next(&iter, NULL, &value)) {
        if (((KVWatch*)value)->queryId == queryId) {
            return value;
        }
    }
    return NULL;
}

/* Tells the listeners; the watch may be gone afterwards. */
static void Notify(KVHandle* handle, const char* name, const char* oldOwner, const char* newOwner,
                   gboolean initial) {
    char* nameCopy = g_strdup(name);
    char* oldCopy = g_strdup(oldOwner);
    char* newCopy = g_strdup(newOwner);
    for (int i = 0; i < handle->names->listenerCount && !handle->unregistered; ++i) {
        handle->names->listeners[i](handle, nameCopy, oldCopy, newCopy, initial);
    }
    g_free(nameCopy);
    g_free(oldCopy);
    g_free(newCopy);
}

static void OnQueryAnswer(KVHandle* handle, sd_bus_message* reply, guint64 queryId) {
    KVWatch* watch = FindQuery(handle, queryId);
    if (watch == NULL) {
        return;
    }
    watch->queryId = 0;
    const char* owner = NULL;
    if (!sd_bus_message_is_method_error(reply, NULL) &&
        sd_bus_message_read(reply, "s", &owner) < 0) {
        owner = NULL;
    }
    g_free(watch->owner);
    watch->owner = g_strdup(owner);
    watch->known = TRUE;
    Notify(handle, watch->name, NULL, watch->owner, TRUE);
}

static int OnQueryReply(sd_bus_message* reply, void* data, sd_bus_error* error) {
    (void)error;
    KVWatch* watch = data;
    watch->query = sd_bus_slot_unref(watch->query);
    KvCoreDefer(watch->handle, OnQueryAnswer, reply, watch->queryId);
    return 1;
}

static void OnOwnerChanged(KVHandle* handle, sd_bus_message* signal, guint64 key) {
    (void)key;
    const char* name;
    const char* oldOwner;
    const char* newOwner;
    if (sd_bus_message_read(signal, "sss", &name, &oldOwner, &newOwner) < 0) {
        return;
    }
    KVWatch* watch = KvWatchFind(handle, name);
    if (watch == NULL) {
        return;
    }
    const char* owner = newOwner[0] != '\0' ? newOwner : NULL;
    if (g_strcmp0(watch->owner, owner) == 0) {
        return;
    }
    char* previous = watch->owner;
    watch->owner = g_strdup(owner);
    if (watch->known) {
        Notify(handle, name, previous, owner, FALSE);
    }
    g_free(previous);
}

static int OnOwnerSignal(sd_bus_message* signal, void* data, sd_bus_error* error) {
    (void)error;
    KvCoreDefer(((KVWatch*)data)->handle, OnOwnerChanged, signal, 0);
    return 1;
}

/* The match is installed without waiting; a failure to install it is ignored: the answer to
 * GetNameOwner still comes, and a broken bus shows as a closed connection. */
static int OnMatchInstalled(sd_bus_message* reply, void* data, sd_bus_error* error) {
    (void)reply;
    (void)data;
    (void)error;
    return 1;
}

/* Asks the bus for the name's owner changes and its owner now. When either request cannot be
 * queued the connection is closed: the name's state would stay unknown on it, and a match that
 * sd-bus failed to add for lack of memory can leave its match tree broken (libsystemd 252 then
 * aborts on the next message, "Assertion 'node->child' failed"). */
static void Follow(KVHandle* handle, KVWatch* watch) {
    char* rule = g_strdup_printf("type='signal',sender='" KV_BUS_NAME "',interface='" KV_BUS_NAME
                                 "',member='NameOwnerChanged',path='" KV_BUS_PATH "',arg0='%s'",
                                 watch->name);
    watch->known = FALSE;
    watch->queryId = ++handle->names->lastQueryId;
    if (sd_bus_add_match_async(handle->bus, &watch->match, rule, OnOwnerSignal, OnMatchInstalled,
                               watch) < 0 ||
        sd_bus_call_method_async(handle->bus, &watch->query, KV_BUS_NAME, KV_BUS_PATH, KV_BUS_NAME,
                                 "GetNameOwner", OnQueryReply, watch, "s", watch->name) < 0) {
        /* Unknown until the loss is handled: then nobody owns anything. */
        watch->match = sd_bus_slot_unref(watch->match);
        KvCoreFail(handle);
    }
    g_free(rule);
}

KVWatch* KvWatchAdd(KVHandle* handle, const char* name) {
    KVWatch* watch = KvWatchFind(handle, name);
    if (watch != NULL) {
        ++watch->users;
        return watch;
    }
    watch = g_new0(KVWatch, 1);
    watch->handle = handle;
    watch->name = g_strdup(name);
    watch->users = 1;
    g_hash_table_insert(handle->names->watches, watch->name, watch);
    if (KvCoreCanSend(handle)) {
        Follow(handle, watch);
    } else {
        /* Without a bus nobody owns anything; the name is followed once connected. */
        watch->known = TRUE;
    }
    return watch;
}

void KvWatchRemove(KVHandle* handle, const char* name) {
    KVWatch* watch = KvWatchFind(handle, name);
    if (watch != NULL && --watch->users == 0) {
        /* Dropping the match slot removes the rule from the bus. */
        g_hash_table_remove(handle->names->watches, name);
    }
}

void KvNamesListen(KVHandle* handle, KVOwnerFunc func) {
    g_assert(handle->names->listenerCount < KV_MAX_LISTENERS);
    handle->names->listeners[handle->names->listenerCount++] = func;
}

/* A new connection, before Hello: the names are followed on it at once (sd-bus sends the
 * requests after Hello), so status calls learn the real state without a detour. */
static void OnConnect(KVHandle* handle) {
    GHashTableIter iter;
    gpointer value;
    g_hash_table_iter_init(&iter, handle->names->watches);
    while (g_hash_table_iter_next(&iter, NULL, &value)) {
        Follow(handle, value);
    }
}

/* The bus is lost: no name has an owner, and nothing is awaited. The listeners learn of the
 * loss from the core, not from here. */
static void OnDown(KVHandle* handle) {
    GHashTableIter iter;
    gpointer value;
    g_hash_table_iter_init(&iter, handle->names->watches);
    while (g_hash_table_iter_next(&iter, NULL, &value)) {
        KVWatch* watch = value;
        watch->match = sd_bus_slot_unref(watch->match);
        watch->query = sd_bus_slot_unref(watch->query);
        g_clear_pointer(&watch->owner, g_free);
        watch->known = TRUE;
        watch->queryId = 0;
    }
}

static void OnUnregister(KVHandle* handle) {
    g_hash_table_remove_all(handle->names->watches);
}

static void Destroy(KVHandle* handle) {
    g_hash_table_destroy(handle->names->watches);
    g_free(handle->names);
}

void KvNamesInit(KVHandle* handle) {
    static const KVModule kModule = {OnConnect, NULL, OnDown, OnUnregister, Destroy};
    handle->names = g_new0(KVNames, 1);
    handle->names->watches = g_hash_table_new_full(g_str_hash, g_str_equal, NULL, WatchFree);
    KvCoreAddModule(handle, &kModule);
}
