#include "kelto/core/StringUtil.h"
#include "kelto/inet/EmailMessage.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MailText.h"
#include "tests/support/Matchers.h"
#include "tests/support/TempDir.h"

#include <malloc.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdio>
#include <set>
#include <sstream>
#include <thread>
#include <utility>

namespace {

/** What stands for the system's; null for the real thing. */
const char* hostName = nullptr;
bool hasRandomNumbers = true;

}  // namespace

// The program's own definitions stand before the C library's.
extern "C" int gethostname(char* name, size_t length) noexcept {
    if (hostName != nullptr) {
        std::snprintf(name, length, "%s", hostName);
        return 0;
    }
    utsname system{};
    uname(&system);
    std::snprintf(name, length, "%s", system.nodename);
    return 0;
}

extern "C" ssize_t getrandom(void* buffer, size_t length, unsigned flags) {
    return hasRandomNumbers ? syscall(SYS_getrandom, buffer, length, flags) : -1;
}

namespace kelto::inet {

namespace {

using Recipient = EmailMessage::Recipient;
using test::MailText;

std::string WireForm(const EmailMessage& message) {
    std::ostringstream stream;
    stream << message;
    return stream.str();
}

MailText Written(const EmailMessage& message) {
    return MailText(WireForm(message));
}

/** The mail to those recipients, without anything else. */
MailText WrittenTo(const std::string& addresses) {
    EmailMessage message("cam@x", "s");
    message.AddRecipient(addresses, Recipient::To);
    return Written(message);
}

MailText WrittenWith(const std::string& text) {
    EmailMessage message("cam@x", "s");
    message.AddContent(text);
    return Written(message);
}

TEST(EmailMessage, ASingleTextIsTheBodyOfAPlainMail) {
    EmailMessage message("Camera <cam@x.example>", "Alarm");
    message.AddRecipient("a@y.example", Recipient::To);
    message.AddContent("Alarm at 14:05\n");
    const MailText mail = Written(message);
    EXPECT_THAT(mail.HeaderNames(), ElementsAre("From", "To", "Subject", "Date", "Message-Id", "MIME-Version",
                                                "Content-Type", "Content-Transfer-Encoding"));
    EXPECT_EQ(mail.Header("From"), "Camera <cam@x.example>");
    EXPECT_EQ(mail.Header("To"), "a@y.example");
    EXPECT_EQ(mail.Header("Subject"), "Alarm");
    EXPECT_EQ(mail.Header("MIME-Version"), "1.0");
    EXPECT_EQ(mail.Header("Content-Type"), "text/plain; charset=utf-8");
    EXPECT_EQ(mail.Header("Content-Transfer-Encoding"), "7bit");
    EXPECT_EQ(mail.GetBody(), "Alarm at 14:05\n");
}

TEST(EmailMessage, EachTextIsAPartOfItsOwnInTheirOrder) {
    EmailMessage message("cam@x", "s");
    message.AddContent("second comes later");
    message.AddContent("12345", 3);
    message.AddContent("\nk = v\n");
    const MailText mail = Written(message);
    EXPECT_THAT(mail.Header("Content-Type"), StartsWith("multipart/mixed; boundary="));
    const std::vector<MailText> parts = mail.Parts();
    ASSERT_THAT(parts, SizeIs(3));
    EXPECT_EQ(parts[0].GetBody(), "second comes later");
    EXPECT_EQ(parts[1].GetBody(), "123");
    EXPECT_EQ(parts[2].GetBody(), "\nk = v\n");
    for (const MailText& part : parts) {
        EXPECT_EQ(part.Header("Content-Type"), "text/plain; charset=utf-8");
    }
}

TEST(EmailMessage, ATextThatIsNoAsciiIsUtf8InQuotedPrintable) {
    const MailText mail = WrittenWith(
        "Gr\xC3\xBC\xC3\x9F"
        "e\n");
    EXPECT_EQ(mail.Header("Content-Type"), "text/plain; charset=utf-8");
    EXPECT_EQ(mail.Header("Content-Transfer-Encoding"), "quoted-printable");
    EXPECT_EQ(mail.GetBody(), "Gr=C3=BC=C3=9Fe\n");
}

TEST(EmailMessage, BytesBehindAZeroBelongToTheText) {
    EmailMessage message("cam@x", "s");
    message.AddContent("a\0b", 3);
    EXPECT_EQ(Written(message).GetBody(), "a=00b\n");
}

TEST(EmailMessage, AMailWithoutTextHasAnEmptyBodyBehindItsHeaders) {
    for (const MailText& mail : {Written(EmailMessage("cam@x", "s")), WrittenWith("")}) {
        EXPECT_EQ(mail.Header("Content-Type"), "text/plain; charset=utf-8");
        EXPECT_EQ(mail.GetBody(), "");
    }
    EXPECT_TRUE(WireForm(EmailMessage("cam@x", "s")).ends_with("\n\n"));
}

TEST(EmailMessage, EveryMailEndsWithALineEnd) {
    EXPECT_EQ(WrittenWith("no line end").GetBody(), "no line end\n");
    EXPECT_EQ(WrittenWith("line end\n").GetBody(), "line end\n");
}

TEST(EmailMessage, HeadersAreEncodedAsUtf8) {
    EmailMessage message("T\xC3\xBCr <cam@x>",
                         "\xE2\x98\x83 Gr\xC3\xBC\xC3\x9F"
                         "e");
    message.AddRecipient("M\xC3\xBCller <a@x>", Recipient::To);
    const std::string wireForm = WireForm(message);
    const MailText mail(wireForm);
    EXPECT_EQ(mail.Header("From"), "=?UTF-8?b?VMO8cg==?= <cam@x>");
    EXPECT_EQ(mail.Header("To"), "=?UTF-8?b?TcO8bGxlcg==?= <a@x>");
    EXPECT_THAT(mail.Header("Subject"), StartsWith("=?UTF-8?B?4piDIEdyw7zDn2U=?="));
    EXPECT_THAT(wireForm, Each(::testing::Truly([](char c) { return static_cast<unsigned char>(c) < 0x80; })));
}

TEST(EmailMessage, HeadersThatWouldFitAnOlderCharsetAreUtf8Too) {
    EXPECT_EQ(Written(EmailMessage("cam@x", "T\xC3\xBCr")).Header("Subject"), "=?UTF-8?B?VMO8cg==?=");
}

TEST(EmailMessage, HeadersThatAreNoUtf8GetReplacementCharacters) {
    EXPECT_EQ(Written(EmailMessage("\xFF <cam@x>", "\xFF")).Header("Subject"), "=?UTF-8?B?77+9?=");
    EXPECT_EQ(Written(EmailMessage("\xFF <cam@x>", "\xFF")).Header("From"), "=?UTF-8?b?77+9?= <cam@x>");
}

TEST(EmailMessage, TheKindsOfRecipientsHaveHeadersOfTheirOwn) {
    EXPECT_EQ(static_cast<int>(Recipient::To), 0);
    EmailMessage message("cam@x", "s");
    message.AddRecipient("a@x", Recipient::To);
    message.AddRecipient("b@x", Recipient::Cc);
    message.AddRecipient("c@x", Recipient::Bcc);
    message.AddRecipient("d@x", Recipient::To);
    const MailText mail = Written(message);
    EXPECT_EQ(mail.Header("To"), "a@x, d@x");
    EXPECT_EQ(mail.Header("Cc"), "b@x");
    EXPECT_EQ(mail.Header("Bcc"), "c@x");
}

TEST(EmailMessage, SeveralAddressesInOneTextAreAsManyRecipients) {
    EXPECT_EQ(WrittenTo("a@x, b@y; \"Last, First\" <c@z>").Header("To"), "a@x, b@y, \"Last, First\" <c@z>");
    EXPECT_EQ(WrittenTo("root").Header("To"), "root");
    EXPECT_THAT(WrittenTo("").HeaderNames(), Not(Contains("To")));
}

TEST(EmailMessage, AnAddressThatIsNoneIsAWarningAndTheOthersStay) {
    const test::LogCapture log;
    for (const char* const text : {"not an address", "a@x b@y", "Group: a@x", "a@x: b@y", "@", ":"}) {
        EXPECT_EQ(WrittenTo(std::string("c@z, ") + text).Header("To"), "c@z") << text;
        EXPECT_TRUE(log.Has(std::string("Warning kelto.inet: Not an address, the mail goes without it: ") + text));
    }
    EXPECT_THAT(log.Lines(), SizeIs(6));
    EXPECT_THAT(Written(EmailMessage("no sender", "s")).HeaderNames(), Not(Contains("From")));
    EXPECT_TRUE(log.Has("Warning kelto.inet: Not an address, the mail goes without it: no sender"));
}

TEST(EmailMessage, WithoutASenderThereIsNoSuchHeaderAndNoWarning) {
    const test::LogCapture log;
    EXPECT_THAT(Written(EmailMessage("", "s")).HeaderNames(), Not(Contains("From")));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(EmailMessage, LineBreaksInASubjectAddNeitherHeadersNorRecipients) {
    for (const char* const lineBreak : {"\n", "\r\n", "\r", "\n\n", "\r\n\r\n"}) {
        const std::string subject = std::string("one") + lineBreak + "Bcc: evil@y" + lineBreak + "two";
        const MailText mail = Written(EmailMessage("cam@x", subject));
        EXPECT_EQ(mail.Header("Subject"), "oneBcc: evil@ytwo");
        EXPECT_THAT(mail.HeaderNames(), ElementsAre("From", "Subject", "Date", "Message-Id", "MIME-Version",
                                                    "Content-Type", "Content-Transfer-Encoding"));
    }
}

TEST(EmailMessage, LineBreaksInAnAddressAddNeitherHeadersNorRecipients) {
    const test::LogCapture log;
    EmailMessage message("cam@x\nBcc: evil@y", "s");
    message.AddRecipient("a@x\r\nBcc: evil@y, b@x\n", Recipient::To);
    const std::string wireForm = WireForm(message);
    EXPECT_THAT(wireForm, Not(HasSubstr("evil")));
    EXPECT_EQ(MailText(wireForm).Header("To"), "b@x");
    EXPECT_THAT(log.Lines(),
                ElementsAre("Warning kelto.inet: Not an address, the mail goes without it: cam@xBcc: evil@y",
                            "Warning kelto.inet: Not an address, the mail goes without it: a@xBcc: evil@y"));
}

TEST(EmailMessage, AZeroByteInAHeaderCutsNothingOff) {
    using namespace std::string_literals;
    EmailMessage message("cam@x\0.example"s, "one\0two"s);
    message.AddRecipient("a@y\0.example, b@y"s, Recipient::To);
    const MailText mail = Written(message);
    EXPECT_EQ(mail.Header("From"), "cam@x.example");
    EXPECT_EQ(mail.Header("Subject"), "onetwo");
    EXPECT_EQ(mail.Header("To"), "a@y.example, b@y");
}

TEST(EmailMessage, ATextThatLooksLikeHeadersStaysText) {
    const MailText mail = WrittenWith("\nBcc: evil@y\n\n.\nQUIT\n");
    EXPECT_THAT(mail.HeaderNames(), Not(Contains("Bcc")));
    EXPECT_EQ(mail.GetBody(), "\nBcc: evil@y\n\n=2E\nQUIT\n");
}

TEST(EmailMessage, ALongSubjectIsFoldedIntoLinesThatEveryServerTakes) {
    for (const std::string& subject : {std::string(5000, 'x'), std::string(5000, '.'), std::string(2500, ' ') + "x"}) {
        const std::string wireForm = WireForm(EmailMessage("cam@x", subject));
        EXPECT_THAT(core::StringUtil::Split(wireForm, '\n'), Each(SizeIs(::testing::Le(998U))));
    }
}

TEST(EmailMessage, NoLineBeginsWithADotWhateverTheMailHolds) {
    const test::TempDir folder;
    EmailMessage message(". <cam@x>",
                         ". . . . . . . . . . . . . . . . . . . . . . . . . . . . . . . . . . . . . . . . .");
    message.AddRecipient("\".\" <a@x>, \"..\" <b@y>", Recipient::To);
    message.AddContent(".\n..\n.\r\n.");
    message.AddContent(std::string(3000, '.'));
    message.Attach(folder.Write(".hidden.jpg", std::string(1000, '.')));
    EXPECT_THAT(core::StringUtil::Split(WireForm(message), '\n'), Each(Not(StartsWith("."))));
}

TEST(EmailMessage, NoLineEndsWithACarriageReturn) {
    EmailMessage message("cam@x", "s\r\n");
    message.AddContent("one\r\n\xC3\xBC\r\ntwo\r");
    EXPECT_THAT(WireForm(message), Not(HasSubstr("\r")));
}

TEST(EmailMessage, AFileIsAttachedInBase64UnderItsName) {
    const test::TempDir folder;
    EmailMessage message("cam@x", "s");
    message.AddContent("text");
    message.Attach(folder.Write("img2.jpg", "\xFF\xD8 picture"));
    const std::vector<MailText> parts = Written(message).Parts();
    ASSERT_THAT(parts, SizeIs(2));
    EXPECT_EQ(parts[0].GetBody(), "text");
    EXPECT_EQ(parts[1].Header("Content-Type"), "image/jpeg; name=img2.jpg");
    EXPECT_EQ(parts[1].Header("Content-Transfer-Encoding"), "base64");
    EXPECT_EQ(parts[1].Header("Content-Disposition"), "attachment; filename=img2.jpg");
    EXPECT_EQ(parts[1].GetBody(), "/9ggcGljdHVyZQ==\n");
}

TEST(EmailMessage, AFileIsAttachedAsItIsAtThatMoment) {
    const test::TempDir folder;
    EmailMessage message("cam@x", "s");
    message.AddContent("text");
    message.Attach(folder.Write("img", "foo"));
    folder.Write("img", "bar");
    EXPECT_EQ(Written(message).Parts().at(1).GetBody(), "Zm9v\n");
}

TEST(EmailMessage, AnUnreadableFileIsOneWarningAndTheMailGoesWithoutIt) {
    const test::LogCapture log;
    EmailMessage message("cam@x", "s");
    message.AddContent("text");
    message.Attach("/nowhere/img2.jpg");
    EXPECT_EQ(Written(message).GetBody(), "text\n");
    EXPECT_THAT(log.Lines(),
                ElementsAre("Warning kelto.inet: The mail goes without its attachment: Cannot read /nowhere/img2.jpg: "
                            "No such file or directory"));
}

TEST(EmailMessage, ANameOfAFileCannotAddHeaders) {
    const test::TempDir folder;
    EmailMessage message("cam@x", "s");
    message.AddContent("text");
    message.Attach(folder.Write("a\"\nBcc: evil@y\n\n.jpg", "foo"));
    const std::vector<MailText> parts = Written(message).Parts();
    ASSERT_THAT(parts, SizeIs(2));
    EXPECT_THAT(parts[1].HeaderNames(),
                ElementsAre("Content-Type", "Content-Transfer-Encoding", "Content-Disposition"));
    EXPECT_EQ(parts[1].GetBody(), "Zm9v\n");
}

TEST(EmailMessage, TheDateIsTheLocalTimeOfTheWritingWithItsZone) {
    test::FakeClock clock("2026-03-05 07:08:09", "CET-1CEST,M3.5.0,M10.5.0");
    const EmailMessage message("cam@x", "s");
    EXPECT_EQ(Written(message).Header("Date"), "Thu, 05 Mar 2026 07:08:09 +0100");
    clock.Set("2026-08-05 07:08:09");
    EXPECT_EQ(Written(message).Header("Date"), "Wed, 05 Aug 2026 07:08:09 +0200");
}

TEST(EmailMessage, TheDateIsRightIn2040) {
    const test::FakeClock clock("2040-01-01 00:00:00");
    EXPECT_EQ(Written(EmailMessage("cam@x", "s")).Header("Date"), "Sun, 01 Jan 2040 00:00:00 +0000");
}

TEST(EmailMessage, EachWritingHasAMessageIdOfItsOwnThatNamesTheHost) {
    std::array<char, HOST_NAME_MAX + 1> host{};
    ASSERT_EQ(gethostname(host.data(), host.size()), 0);
    const EmailMessage message("cam@x", "s");
    std::set<std::string> ids;
    for (int i = 0; i < 50; ++i) {
        const std::string id = Written(message).Header("Message-Id");
        EXPECT_THAT(id, MatchesRegex("<[0-9a-f]{32}@" + std::string(host.data()) + ">"));
        ids.insert(id);
    }
    EXPECT_THAT(ids, SizeIs(50));
}

TEST(EmailMessage, AHostNameLosesWhatMayNotStandInAMessageId) {
    const std::pair<const char*, const char*> cases[] = {{"camera-7.example", "camera-7.example"},
                                                         {"front door<@>\xC3\xBC\n7", "frontdoor7"},
                                                         {"@@", "localhost"},
                                                         {"", "localhost"}};
    for (const auto& [name, shown] : cases) {
        hostName = name;
        EXPECT_THAT(Written(EmailMessage("cam@x", "s")).Header("Message-Id"),
                    MatchesRegex("<[0-9a-f]{32}@" + std::string(shown) + ">"));
    }
    hostName = nullptr;
}

TEST(EmailMessage, WithoutRandomNumbersThereIsNoMail) {
    hasRandomNumbers = false;
    EXPECT_THAT([] { WireForm(EmailMessage("cam@x", "s")); },
                FailsWith("There are no random numbers for a Message-ID"));
    hasRandomNumbers = true;
}

TEST(EmailMessage, WritingLeavesNoMemoryBehind) {
    const test::TempDir folder;
    const std::string picture = folder.Write("img.jpg", "picture");
    const auto write = [&] {
        EmailMessage message("Camera <cam@x>", "subject");
        message.AddRecipient("a@x, B <b@y>, no address", Recipient::To);
        message.AddContent("text");
        message.Attach(picture);
        WireForm(message);
    };
    // What the library makes once, and what the allocator keeps at hand.
    for (int i = 0; i < 300; ++i) {
        write();
    }
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 2000; ++i) {
        write();
    }
    // The smallest block has 32 bytes.
    EXPECT_LT(mallinfo2().uordblks, before + 2000 * 32);
}

TEST(EmailMessage, ThreadsMayWriteMailsAtOnce) {
    const test::TempDir folder;
    const std::string picture = folder.Write("img.jpg", std::string(100000, 'x'));
    const auto write = [&](const std::string& name) {
        for (int i = 0; i < 50; ++i) {
            EmailMessage message(name + " <cam@x>", "s \xC3\xBC");
            message.AddRecipient("a@x, b@y", Recipient::To);
            message.AddContent(name);
            message.Attach(picture);
            const MailText mail = Written(message);
            ASSERT_EQ(mail.Header("From"), name + " <cam@x>");
            ASSERT_THAT(mail.Parts(), SizeIs(2));
            ASSERT_EQ(mail.Parts()[0].GetBody(), name);
        }
    };
    std::thread one(write, "one");
    std::thread two(write, "two");
    one.join();
    two.join();
}

}  // namespace

}  // namespace kelto::inet
