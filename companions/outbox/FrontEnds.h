#pragma once

namespace kelto::halvek::outbox {

/**
 * ftpput: hands a file to the outbox. It becomes the next ftpput on PATH if the outbox cannot be reached.
 *
 * @return 0 it is queued, 1 wrong words or not even another ftpput, 66 the file is not there, 75 there is no room
 */
int RunFtpput(int argc, char** argv);

/**
 * esmtp -t: likewise with a mail on standard input.
 *
 * @return 0 it is queued, 64 wrong words, 65 no recipient, no mail, or one above 10 MiB, 75 there is no room, 1 the
 *         outbox cannot be reached and there is no other esmtp
 */
int RunEsmtp(int argc, char** argv);

}  // namespace kelto::halvek::outbox
