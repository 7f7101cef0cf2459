#include "kelto/inet/MailLoader.h"

#include "kelto/osa/Exception.h"
#include "kelto/osa/PathUtils.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <mutex>

namespace kelto::inet {

namespace {

constexpr const char* moduleName = MAIL_MODULE_NAME;
constexpr const char* installedFolder = MAIL_MODULE_FOLDER;

/** The module's functions. */
struct MailModule {
    kelto_mail_write_function write;
    kelto_mail_release_function release;
};

std::string ModulePath() {
    const char* const named = std::getenv("KELTO_MAIL_MODULE");
    if (named != nullptr && *named != '\0') {
        return named;
    }
    const std::string programFolder = osa::PathUtils::Dirname(osa::PathUtils::RealPath("/proc/self/exe"));
    const std::string beside = osa::PathUtils::PathConcat(programFolder, moduleName);
    return access(beside.c_str(), F_OK) == 0 ? beside : osa::PathUtils::PathConcat(installedFolder, moduleName);
}

/** What the dynamic loader has found; it says why if it has found nothing. */
void* Checked(void* found) {
    if (found == nullptr) {
        throw osa::Exception("Cannot load the mail library: %s", dlerror());
    }
    return found;
}

MailModule LoadModule() {
    void* const handle = Checked(dlopen(ModulePath().c_str(), RTLD_NOW | RTLD_LOCAL));
    return {reinterpret_cast<kelto_mail_write_function>(Checked(dlsym(handle, KELTO_MAIL_WRITE))),
            reinterpret_cast<kelto_mail_release_function>(Checked(dlsym(handle, KELTO_MAIL_RELEASE)))};
}

}  // namespace

std::string WriteMail(const kelto_mail& mail) {
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    static const MailModule module = LoadModule();
    const kelto_mail_buffer buffer = module.write(&mail);
    const std::unique_ptr<char, kelto_mail_release_function> owner(buffer.data, module.release);
    return std::string(buffer.data, buffer.size);
}

}  // namespace kelto::inet
