#include "kelto/inet/MailModule.h"

#include <gmime/gmime.h>

#include <array>
#include <csignal>
#include <memory>

namespace {

constexpr const char* charset = "utf-8";

struct Unref {
    template <typename Object>
    void operator()(Object* object) const {
        g_object_unref(object);
    }
};

template <typename Object>
using Owned = std::unique_ptr<Object, Unref>;

struct Free {
    void operator()(char* text) const { g_free(text); }
};

/** Bytes that are no UTF-8 become replacement characters; the library would take them for some other charset's. */
std::unique_ptr<char, Free> ValidUtf8(const char* text) {
    return std::unique_ptr<char, Free>(g_utf8_make_valid(text, -1));
}

/** Whether the list is exactly one address, and no group, which may hold any number of them. */
bool IsOneAddress(InternetAddressList* list) {
    return list != nullptr && internet_address_list_length(list) == 1 &&
           INTERNET_ADDRESS_IS_MAILBOX(internet_address_list_get_address(list, 0));
}

InternetAddressList* ListOf(GMimeMessage* message, kelto_mail_address_kind kind) {
    constexpr std::array<GMimeAddressType, 4> types = {GMIME_ADDRESS_TYPE_FROM, GMIME_ADDRESS_TYPE_TO,
                                                       GMIME_ADDRESS_TYPE_CC, GMIME_ADDRESS_TYPE_BCC};
    return g_mime_message_get_addresses(message, types[kind]);
}

void AddAddress(GMimeMessage* message, kelto_mail_address& address) {
    const Owned<InternetAddressList> list(internet_address_list_parse(nullptr, ValidUtf8(address.text).get()));
    address.refused = IsOneAddress(list.get()) ? 0 : 1;
    if (address.refused == 0) {
        internet_address_set_charset(internet_address_list_get_address(list.get(), 0), charset);
        internet_address_list_append(ListOf(message, address.kind), list.get());
    }
}

GMimeContentEncoding EncodingOf(const kelto_mail_part& content) {
    if (content.fileName != nullptr) {
        return GMIME_CONTENT_ENCODING_BASE64;
    }
    return content.isQuotedPrintable != 0 ? GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE : GMIME_CONTENT_ENCODING_7BIT;
}

Owned<GMimeObject> MakePart(const kelto_mail_part& content) {
    GMimePart* const part = g_mime_part_new_with_type(content.type, content.subtype);
    const GMimeContentEncoding encoding = EncodingOf(content);
    const bool isFile = content.fileName != nullptr;
    const Owned<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(content.data, content.size));
    const Owned<GMimeDataWrapper> wrapper(
        g_mime_data_wrapper_new_with_stream(stream.get(), isFile ? GMIME_CONTENT_ENCODING_DEFAULT : encoding));
    g_mime_part_set_content(part, wrapper.get());
    g_mime_part_set_content_encoding(part, encoding);
    if (isFile) {
        g_mime_part_set_filename(part, ValidUtf8(content.fileName).get());
    } else {
        g_mime_object_set_content_type_parameter(GMIME_OBJECT(part), "charset", charset);
    }
    return Owned<GMimeObject>(GMIME_OBJECT(part));
}

/** A single part stands for itself. */
Owned<GMimeObject> MakeBody(const kelto_mail& mail) {
    if (mail.partCount == 1) {
        return MakePart(mail.parts[0]);
    }
    GMimeMultipart* const multipart = g_mime_multipart_new_with_subtype("mixed");
    for (size_t i = 0; i < mail.partCount; ++i) {
        g_mime_multipart_add(multipart, MakePart(mail.parts[i]).get());
    }
    return Owned<GMimeObject>(GMIME_OBJECT(multipart));
}

Owned<GMimeMessage> MakeMessage(const kelto_mail& mail) {
    Owned<GMimeMessage> message(g_mime_message_new(FALSE));
    for (size_t i = 0; i < mail.addressCount; ++i) {
        AddAddress(message.get(), mail.addresses[i]);
    }
    g_mime_message_set_subject(message.get(), ValidUtf8(mail.subject).get(), charset);
    g_mime_object_set_header(GMIME_OBJECT(message.get()), "Date", mail.date, nullptr);
    g_mime_message_set_message_id(message.get(), mail.messageId);
    g_mime_message_set_mime_part(message.get(), MakeBody(mail).get());
    return message;
}

/** Brings in a library that would have the process ignore SIGPIPE, and every command that it starts from then on. */
bool InitialiseLibrary() {
    struct sigaction brokenPipe {};
    sigaction(SIGPIPE, nullptr, &brokenPipe);
    g_mime_init();
    sigaction(SIGPIPE, &brokenPipe, nullptr);
    return true;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) kelto_mail_buffer kelto_mail_write(const kelto_mail* mail) {
    [[maybe_unused]] static const bool initialised = InitialiseLibrary();
    const Owned<GMimeMessage> message = MakeMessage(*mail);
    const Owned<GMimeStream> stream(g_mime_stream_mem_new());
    g_mime_object_write_to_stream(GMIME_OBJECT(message.get()), nullptr, stream.get());
    GByteArray* const bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream.get()));
    // The array stays ours: the stream frees it only if it owns it.
    g_mime_stream_mem_set_owner(GMIME_STREAM_MEM(stream.get()), FALSE);
    const size_t size = bytes->len;
    return {reinterpret_cast<char*>(g_byte_array_free(bytes, FALSE)), size};
}

extern "C" __attribute__((visibility("default"))) void kelto_mail_release(char* data) {
    g_free(data);
}
