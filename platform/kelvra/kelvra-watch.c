/* Name-owner tracking: a match rule for the name's NameOwnerChanged signals, then GetNameOwner
 * for its state. The bus handles a connection's messages in order, so no change between the two
 * is missed; changes that arrive before the answer are superseded by it. */
#include "kelvra-private.h"

void KvWatchFree(gpointer data) {
    KVWatch* watch = data;
    g_free(watch->name);
    g_free(watch->owner);
    g_free(watch);
}

static GDBusMessage* NewBusCall(const char* method, GVariant* body) {
    GDBusMessage* message = g_dbus_message_new_method_call(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method);
    g_dbus_message_set_body(message, body);
    return message;
}

/* AddMatch or RemoveMatch for the name's owner changes; the answer is not awaited. */
static void SendMatchRule(KVHandle* handle, const char* method, const char* name) {
    char* rule = g_strdup_printf(
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',path='/org/freedesktop/DBus',arg0='%s'",
        name);
    GDBusMessage* message = NewBusCall(method, g_variant_new("(s)", rule));
    g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    KvSend(handle, message, NULL, NULL);
    g_object_unref(message);
    g_free(rule);
}

/* Asks the bus for the name's owner changes and its owner now. */
static void Follow(KVHandle* handle, KVWatch* watch) {
    SendMatchRule(handle, "AddMatch", watch->name);
    KVPending* pending = g_new0(KVPending, 1);
    pending->kind = KV_PENDING_NAME_QUERY;
    pending->name = g_strdup(watch->name);
    GDBusMessage* query = NewBusCall("GetNameOwner", g_variant_new("(s)", watch->name));
    watch->querySerial = KvSend(handle, query, pending, NULL);
    g_object_unref(query);
}

KVWatch* KvWatchAdd(KVHandle* handle, const char* name) {
    KVWatch* watch = g_hash_table_lookup(handle->watches, name);
    if (watch != NULL) {
        ++watch->users;
        return watch;
    }
    watch = g_new0(KVWatch, 1);
    watch->name = g_strdup(name);
    watch->users = 1;
    g_hash_table_insert(handle->watches, watch->name, watch);
    if (KvLinkUp(handle)) {
        Follow(handle, watch);
    } else {
        /* Without a bus nobody owns anything; the name is followed once connected. */
        watch->known = TRUE;
    }
    return watch;
}

void KvWatchRemove(KVHandle* handle, const char* name) {
    KVWatch* watch = g_hash_table_lookup(handle->watches, name);
    if (watch == NULL || --watch->users > 0) {
        return;
    }
    if (!handle->unregistered && KvLinkUp(handle)) {
        SendMatchRule(handle, "RemoveMatch", name);
        if (watch->querySerial != 0) {
            KvForgetSerial(handle, watch->querySerial);
        }
    }
    g_hash_table_remove(handle->watches, name);
}

/* Tells the client and service sides; the watch may be gone afterwards. */
static void Notify(KVHandle* handle, const char* name, const char* oldOwner, const char* newOwner,
                   gboolean initial) {
    char* nameCopy = g_strdup(name);
    char* oldCopy = g_strdup(oldOwner);
    char* newCopy = g_strdup(newOwner);
    KvClientOnOwnerChanged(handle, nameCopy, oldCopy, newCopy, initial);
    if (!handle->unregistered && newCopy == NULL) {
        KvServiceOnClientGone(handle, nameCopy);
    }
    g_free(nameCopy);
    g_free(oldCopy);
    g_free(newCopy);
}

void KvWatchOnQueryReply(KVHandle* handle, KVPending* pending, GDBusMessage* reply) {
    KVWatch* watch = g_hash_table_lookup(handle->watches, pending->name);
    if (watch == NULL || watch->querySerial != g_dbus_message_get_reply_serial(reply)) {
        return;
    }
    watch->querySerial = 0;
    const char* owner = NULL;
    GVariant* body = g_dbus_message_get_body(reply);
    if (g_dbus_message_get_message_type(reply) == G_DBUS_MESSAGE_TYPE_METHOD_RETURN && body &&
        g_variant_is_of_type(body, G_VARIANT_TYPE("(s)"))) {
        g_variant_get(body, "(&s)", &owner);
    }
    g_free(watch->owner);
    watch->owner = g_strdup(owner);
    watch->known = TRUE;
    Notify(handle, watch->name, NULL, watch->owner, TRUE);
}

void KvWatchOnOwnerChanged(KVHandle* handle, GDBusMessage* signal) {
    GVariant* body = g_dbus_message_get_body(signal);
    if (body == NULL || !g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)"))) {
        return;
    }
    const char* name;
    const char* oldOwner;
    const char* newOwner;
    g_variant_get(body, "(&s&s&s)", &name, &oldOwner, &newOwner);
    KVWatch* watch = g_hash_table_lookup(handle->watches, name);
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

static void Forget(gpointer name, gpointer watchData, gpointer unused) {
    (void)name;
    (void)unused;
    KVWatch* watch = watchData;
    g_clear_pointer(&watch->owner, g_free);
    watch->known = TRUE;
    watch->querySerial = 0;
}

void KvWatchOnBusLost(KVHandle* handle) {
    g_hash_table_foreach(handle->watches, Forget, NULL);
}

static void FollowAgain(gpointer name, gpointer watch, gpointer handle) {
    (void)name;
    ((KVWatch*)watch)->known = FALSE;
    Follow(handle, watch);
}

void KvWatchOnBusBack(KVHandle* handle) {
    g_hash_table_foreach(handle->watches, FollowAgain, handle);
}
