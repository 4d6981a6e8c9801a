// SPDX-License-Identifier: Apache-2.0
/*
 * vex.h: the agent client interface.
 *
 * A C interface through which a program on this host talks to vexagent:
 *
 *     vexSession *session;
 *     vexSearchHandle *search;
 *     vexObject *object;
 *     if (vexSessionOpen(VEX_SESSION_LOCAL, VEX_INTERFACE_LEVEL, &session) != VEX_OK) ...
 *     if (vexLdapSearchOpen(session, "", "(sAMAccountName=ann)", "DC=example,DC=com", NULL,
 *                           2, -1, 0, &search) != VEX_OK) ...
 *     while ((code = vexLdapSearchNext(search, &object)) == VEX_OK) {
 *         ...
 *         vexFreeObject(object);
 *     }
 *     // code == VEX_END_OF_RESULTS: that was all of them
 *     vexLdapSearchClose(search);
 *     vexSessionClose(session);
 *
 * Results. Every call that can fail answers a vexCode, 0 for success; on
 * failure the places for results are left as they were.
 *
 * Ownership. What a call hands out is the caller's and is released with the
 * free call named beside it, from any thread, also after its session has been
 * closed. The free calls accept null.
 *
 * Threads. Sessions, searches and objects are independent of each other and
 * may be used from different threads; one session, or one search, is used by
 * one thread at a time. An object is immutable: any number of threads may read
 * it, and every clone lives and dies apart.
 *
 * Time. Every call that asks the agent has a deadline (VEX_DEADLINE_SECONDS)
 * and survives signals. An agent that does not answer in time counts as gone:
 * VEX_BROKEN_SESSION.
 *
 * Texts. An argument ends at its first NUL. Whoever has texts with lengths refuses
 * a name or a password with a NUL inside: what is left of it may be another's.
 *
 * Null sessions and null searches are answered with VEX_BROKEN_HANDLE.
 *
 * The agent's socket is the setting "agent.socket" of the host's settings file.
 */
#ifndef VEX_VEX_H
#define VEX_VEX_H

#include <lber.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------ codes */

typedef int vexCode;

enum {
    VEX_OK = 0,
    VEX_INVALID_ARGUMENT = 2, /* an argument is out of its range */
    VEX_NO_MEMORY = 3,
    VEX_NOT_SUPPORTED = 4,   /* this agent, or its directory, cannot do that */
    VEX_BROKEN_SESSION = 6,  /* the agent cannot be reached, has gone, or did not answer in time */
    VEX_END_OF_RESULTS = 7,  /* the directory has no more; never that a limit was reached */
    VEX_DIRECTORY_ERROR = 8, /* the directory failed: vexGetLastProtocolError says how */
    VEX_NO_SUCH_OBJECT = 9,  /* no object has this name */
    VEX_NO_SUCH_ATTRIBUTE = 10,
    VEX_BAD_FILTER = 11,  /* the filter text is no filter */
    VEX_UNAVAILABLE = 12, /* no directory can be reached */
    VEX_NO_SUCH_USER = 13,
    VEX_WRONG_PASSWORD = 14,
    VEX_ACCOUNT_REFUSED = 15, /* right name, but the account may not log in now */
    VEX_REFUSED = 16,         /* the agent refuses the request: malformed, too large, or not allowed */
    VEX_BROKEN_HANDLE = 32,   /* the session or search is null or closed */
    VEX_OBJECT_GONE = 36      /* no object has this GUID any more */
};

/* Error systems: whose code an error code is. */
enum {
    VEX_ERR_AGENT = 1,    /* a vexCode */
    VEX_ERR_LDAP = 2,     /* a result code of the LDAP client library */
    VEX_ERR_KERBEROS = 3, /* a krb5_error_code */
    VEX_ERR_SYSTEM = 4    /* an errno value */
};

/*
 * Each gives a short static text that is never freed: the name of a result code
 * ("broken session") or of an error system ("LDAP"). An unknown number gets a
 * text too ("unknown code", "unknown system"). Returns VEX_OK, or
 * VEX_INVALID_ARGUMENT when there is no place for the text.
 */
vexCode vexGetVexCodeStr(vexCode code, const char** text);
vexCode vexGetErrSystemStr(int errSystem, const char** text);

/* --------------------------------------------------------------- sessions */

typedef struct vexSession vexSession;

enum {
    VEX_SESSION_LOCAL = 1,    /* the only kind: an agent on this host */
    VEX_INTERFACE_LEVEL = 21, /* the level of this header */
    VEX_DEADLINE_SECONDS = 10 /* for one call; "agent.timeout" in the settings changes it */
};

/* Options: each takes a 4-byte signed integer and travels with the session's next requests. */
enum {
    VEX_OPTION_ZONE_VIEW = 4,         /* VEX_VIEW_...: objects with computed attributes; 0: without */
    VEX_OPTION_TYPED = 64,            /* 1: select objects of UNIX kinds only; 0: any object */
    VEX_OPTION_PREFER_CACHED = 0x100, /* 1: prefer the agent's cached authentication */
    VEX_OPTION_ALLOW_CACHED = 0x1000  /* 1: allow it while the domain cannot be reached */
};

/*
 * Views. Either one computes a group's memberUid, and answers an assertion on it by the
 * person's own groups.
 */
enum {
    VEX_VIEW_HOSTS = 1,       /* people with a uidNumber, by uid or else sAMAccountName */
    VEX_VIEW_APPLICATIONS = 2 /* all people, by sAMAccountName. Those without a uidNumber stand in
                                 _unnumberedMember, and an assertion on memberUid finds their groups too */
};

/*
 * Opens a session: a small record that holds no connection between requests.
 * Asks the agent nothing, but fails at once when no agent listens. An agent that
 * listens and hangs does not keep it long.
 *
 * kind is VEX_SESSION_LOCAL and level VEX_INTERFACE_LEVEL. Returns VEX_OK,
 * VEX_INVALID_ARGUMENT (no place for the session), VEX_NOT_SUPPORTED (another
 * kind or level), VEX_NO_MEMORY or VEX_BROKEN_SESSION.
 */
vexCode vexSessionOpen(int kind, int level, vexSession** session);

/* Closes a session. Searches opened in it stay valid only for vexLdapSearchClose. */
vexCode vexSessionClose(vexSession* session);

/*
 * Sets an option. size is 4. Purely local. Returns VEX_OK, VEX_BROKEN_HANDLE,
 * VEX_INVALID_ARGUMENT (null value, other size) or VEX_NOT_SUPPORTED (unknown
 * option).
 */
vexCode vexSetOption(vexSession* session, int option, const void* value, size_t size);

/* --------------------------------------------------------------- searches */

typedef struct vexObject vexObject;

/* An open search. The layout is public; its fields are only read. */
typedef struct vexSearchHandle {
    vexSession* session; /* the session that it was opened in */
    int total;           /* how many objects the agent has found so far */
    int isLastPage;      /* 1 when no further batch follows the one at hand */
} vexSearchHandle;

/*
 * Opens a search; its first batch comes with the answer.
 *
 * domain      "" the joined domain, "$" the global catalog of the forest, or a domain's name
 * filter      RFC 4515 text; "" or null means every object of the selection
 * base        the DN to search from; "" or null the domain's root; "<GUID=...>" an object's GUID
 * attributes  a null-terminated array of names; null or empty means all; "1.1" none. Every object
 *             carries _dn, _GUID and _objectCategory whatever was asked for
 * scope       0 base, 1 one level, 2 subtree, 3 subordinate (RFC 4511 and its numbers)
 * sizeLimit   a hint for batching, -1 for none: more objects than this may follow
 * pageSize    a hint for batching, 0 for none
 *
 * Returns VEX_OK with the handle in *search, or an error; VEX_NO_SUCH_OBJECT
 * when the base does not exist.
 */
vexCode vexLdapSearchOpen(vexSession* session, const char* domain, const char* filter, const char* base,
                          const char* const* attributes, int scope, int sizeLimit, int pageSize,
                          vexSearchHandle** search);

/*
 * Gives the next object, freed with vexFreeObject. VEX_END_OF_RESULTS only when
 * the directory has no more; any other code means that the results are
 * incomplete.
 */
vexCode vexLdapSearchNext(vexSearchHandle* search, vexObject** object);

/*
 * Ends a search and frees its handle; works on a search of a closed session too. Never
 * waits for the agent: one that cannot be told now is told with a later request.
 */
vexCode vexLdapSearchClose(vexSearchHandle* search);

/* Reads one object by DN. VEX_NO_SUCH_OBJECT when there is none. */
vexCode vexLdapFetch(vexSession* session, const char* domain, const char* dn, const char* const* attributes,
                     vexObject** object);

/* Reads one object with all its attributes by the text form of its GUID. VEX_OBJECT_GONE when there is none.
 */
vexCode vexLookupObjectByGuid(vexSession* session, const char* guid, vexObject** object);

/*
 * A hint: the GUIDs that this session will look up next, in their order, in a
 * null-terminated array that is copied. In place of an earlier hint; null or an empty
 * array takes it back. Local, and asks nothing by itself.
 *
 * The next vexLookupObjectByGuid of one of them fetches some of those that follow it in
 * the same round trip, and their look-ups are answered from what came: for
 * VEX_AHEAD_SECONDS, each once, and until an option of the session is set. The answers
 * are the same with and without a hint: what did not come is asked for when it is looked
 * up. One that is passed over is not expected any more.
 *
 * Of more than VEX_MOST_AHEAD GUIDs the first ones count, and none that is longer than
 * a GUID's text can be. An agent that does not know of hints answers as ever. Returns
 * VEX_OK, VEX_BROKEN_HANDLE or VEX_NO_MEMORY.
 */
enum { VEX_MOST_AHEAD = 128, VEX_AHEAD_SECONDS = 2 };
vexCode vexExpectLookups(vexSession* session, const char* const* guids);

/* ---------------------------------------------------------------- objects */

/* The attributes that every object carries. */
#define AD_OBJECT_GUID_TEXT "_GUID" /* lower-case text form, 8-4-4-4-12 */
#define AD_OBJECT_DN_TEXT "_dn"

#define AD_CN "cn"
#define AD_OBJECT_CLASS "objectClass"
#define AD_OBJECT_CATEGORY "objectCategory"
#define AD_USER_CATEGORY "Person" /* the _objectCategory of users */
#define VORN_OBJECT_CATEGORY "_objectCategory"
#define VORN_NSSENTRY_INVALID "_nssEntryInvalid"

/* One value. The bytes are followed by a NUL that length does not count. */
typedef struct vexBlob {
    uint32_t length;
    const unsigned char* data;
} vexBlob;

/*
 * Reads of an object. Purely local; names are compared without regard to case.
 * session is the one that the object came through; null is allowed, since the
 * object holds all that is asked for. VEX_NO_SUCH_ATTRIBUTE when the object does
 * not carry the attribute.
 */

/* The first value as text, freed with vexFreeString. */
vexCode vexGetAttributeStr(vexSession* session, const vexObject* object, const char* name, char** value);

/* The first value as a truth value: 1 for "TRUE", "true" or a number other than 0, else 0. */
vexCode vexGetAttributeBool(vexSession* session, const vexObject* object, const char* name, int* value);

/*
 * All values in their order, freed with vexFreeAttributeBlobList and the same
 * count. The bytes are shared with the object and stay valid until the list is
 * freed, even when the object is freed first.
 */
vexCode vexGetAttributeBlobList(vexSession* session, const vexObject* object, const char* name,
                                vexBlob** values, int* count);

/*
 * Walks the object's attributes in the object's own order. *cursor is the walk's
 * place; First sets it, Next advances it. The name is freed with vexFreeString.
 * VEX_NO_SUCH_ATTRIBUTE past the last one.
 */
vexCode vexGetFirstAttribute(vexSession* session, const vexObject* object, unsigned* cursor, char** name);
vexCode vexGetNextAttribute(vexSession* session, const vexObject* object, unsigned* cursor, char** name);

/* Another handle to the same immutable object; copies no bytes. Null when out of memory or given null. */
vexObject* ChmCloneObject(const vexObject* object);

/* The bytes of memory that the object takes, which its clones share; 0 for null. For who keeps many. */
size_t vexGetObjectSize(const vexObject* object);

/* ---------------------------------------------------------- authentication */

/*
 * Asks the agent whether this is the user's password. user is a DN (also one
 * that a search showed with a rewritten "cn="), name@realm or DOMAIN\name.
 * flags is 0. Null or empty user: VEX_NO_SUCH_USER; null or empty password:
 * VEX_WRONG_PASSWORD, and the directory is not asked. Asked once, never retried.
 */
vexCode vexAuthValidatePlainTextUser(vexSession* session, const char* user, const char* password, int flags);

/*
 * Gives the user a new password, with the old one as the leave to do so. user is as
 * above. Asked once, never retried. After VEX_BROKEN_SESSION nobody knows which of the
 * two holds.
 *
 * The answers about user and old password are those of a check. VEX_REFUSED with the LDAP
 * error 19 (constraint violation) says that the directory does not take the new password,
 * and so does an empty one, of which the directory is not asked. VEX_NOT_SUPPORTED: this
 * agent changes no passwords.
 */
vexCode vexAuthChangePassword(vexSession* session, const char* user, const char* oldPassword,
                              const char* newPassword);

/* ------------------------------------------------------------- diagnosis */

/* A list of names: count and array. Freed with vexFreeStringSet. */
typedef struct vexStringSet {
    int count;
    char** strings;
} vexStringSet;

/* The names of the attributes that objects can carry, secrets excepted. */
vexCode vexGetObjectSupportedAttributes(vexSession* session, vexStringSet** names);

/*
 * Asks the agent about its health. flags is 0. *condition is VEX_OK when it can
 * answer, otherwise the code that says why not, with the error behind it in the
 * three other places; *errString may become null and is freed with
 * vexFreeString.
 */
vexCode vexSystemHealthInfo(vexSession* session, int flags, int* condition, int* errSystem, int* errCode,
                            char** errString);

/*
 * The error behind this session's last failed call. Local. VEX_BROKEN_SESSION
 * when that call did not reach the agent, VEX_NO_SUCH_ATTRIBUTE when the last
 * call did not fail. *errString may become null and is freed with vexFreeString.
 */
vexCode vexGetLastProtocolError(vexSession* session, int* errSystem, int* errCode, char** errString);

/* --------------------------------------------------------- the free calls */

void vexFreeString(char* text);
void vexFreeAttributeBlobList(vexBlob* values, int count);
void vexFreeStringSet(vexStringSet* names);
void vexFreeObject(vexObject* object);

/* -------------------------------------------------------------------- BER */

/*
 * BER encoding (X.690) with liblber's types, so that a caller needs no other
 * library for a control's value. They behave as liblber's functions of the same
 * names without the prefix: ber_init2, ber_printf, ber_flatten2, ber_free_buf,
 * ber_memcalloc and ber_memfree; ber_printf's format letters are liblber's.
 */
void vex_ber_init2(BerElement* ber, struct berval* value, int options);
int vex_ber_printf(BerElement* ber, const char* format, ...);
int vex_ber_flatten2(BerElement* ber, struct berval* value, int alloc);
void vex_ber_free_buf(BerElement* ber);
void* vex_ber_memcalloc(ber_len_t count, ber_len_t size);
void vex_ber_memfree(void* memory);

#ifdef __cplusplus
}
#endif

#endif
