#pragma once

/**
 * The plain C edge of the loadable module that makes mails: fields in, one buffer out.
 *
 * The module alone knows the mail library, so that a process that never mails carries none of it. It takes no time and
 * no file status from its caller and asks the system for none: on a 32-bit system the library's own end in 2038.
 * All pointers are borrowed for the length of the call. Not for two threads at once.
 */

#include <stddef.h>

enum kelto_mail_address_kind {
    KELTO_MAIL_FROM,
    KELTO_MAIL_TO,
    KELTO_MAIL_CC,
    KELTO_MAIL_BCC,
};

/** One address, with a name or without. */
struct kelto_mail_address {
    enum kelto_mail_address_kind kind;
    const char* text;
    /** Set by the module: 1 if the text is not exactly one address; the mail goes without it. */
    int refused;
};

/** One text, or one file if it has a name. */
struct kelto_mail_part {
    /** "image" and "jpeg" for instance */
    const char* type;
    const char* subtype;
    /** null for a text, which is UTF-8 */
    const char* fileName;
    const char* data;
    size_t size;
    /** Of a text: whether the data has been encoded as quoted-printable already. Files become base64. */
    int isQuotedPrintable;
};

/** No text may hold a line break, but for the parts. */
struct kelto_mail {
    const char* subject;
    const char* date;
    /** without the angle brackets */
    const char* messageId;
    struct kelto_mail_address* addresses;
    size_t addressCount;
    const struct kelto_mail_part* parts;
    size_t partCount;
};

struct kelto_mail_buffer {
    char* data;
    size_t size;
};

#define KELTO_MAIL_WRITE "kelto_mail_write"
#define KELTO_MAIL_RELEASE "kelto_mail_release"

/** Makes the mail's wire form, with line feeds as line ends. The buffer is the caller's until it is released. */
typedef struct kelto_mail_buffer (*kelto_mail_write_function)(const struct kelto_mail* mail);

typedef void (*kelto_mail_release_function)(char* data);
