#pragma once

#include "kelto/inet/MailModule.h"

#include <string>

namespace kelto::inet {

/**
 * Writes a mail through the module with the mail library, one thread at a time; the others wait.
 *
 * The first call loads the module, and it stays until the process ends: the library cannot be taken out again. It is
 * the file that the environment's KELTO_MAIL_MODULE names; without that variable, kelto-mail.so in the folder of the
 * running program, as in a build tree; else the one in the folder for libraries that the platform was configured with
 * (/usr/lib/<system>/kelto/kelto-mail.so for a packaged daemon).
 *
 * @throws kelto::osa::Exception if the module cannot be loaded; the next call tries again
 */
std::string WriteMail(const kelto_mail& mail);

}  // namespace kelto::inet
