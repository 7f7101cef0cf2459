#include "handler/FtpEventHandler.h"

#include "env/HandlerRegistry.h"
#include "env/SettingsReader.h"
#include "kelto/core/Logger.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/PathUtils.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>
#include <utility>

namespace kelto::halvek::handler {

namespace {

constexpr const char* defaultSourcePath = "/tmp/snapshot/img2.jpg";
constexpr std::string_view rootFolder = "/";
/** Bytes, with the one that ends it. */
constexpr size_t commandSize = 256;

std::unique_ptr<EventHandler> Create(HalvekEnv*) {
    return std::make_unique<FtpEventHandler>();
}

constexpr HandlerRegistration registration{"Ftp", Create, 0};
[[gnu::init_priority(RegisterFtp)]] const HandlerRegistrar registrar(&registration);

}  // namespace

FtpEventHandler::FtpEventHandler(SnapshotLookUp lookUp)
    : logger(core::Logger::GetLogger("halvek")), lookUpSnapshot(std::move(lookUp)) {}

void FtpEventHandler::Configure(const core::IniFile::Group& group) {
    EventHandler::Configure(group);
    const SettingsReader reader(group);
    reader.TryRead(keys.Text("DestName"), destName);
    reader.TryRead(keys.Text("Server"), server);
    reader.TryRead(keys.Text("BasePath"), basePath);
    reader.TryRead(keys.Text("Username"), username);
    reader.TryRead(keys.Text("Password"), password);
    if (!reader.Read(keys.Boolean("Attachment"))) {
        throw osa::Exception("FtpEventHandler: No file attachment wanted, what's the point then?");
    }
    FindSourcePath();
    ResolveBasePath();
}

void FtpEventHandler::FindSourcePath() {
    LookUpSourcePath();
    if (sourcePath.empty()) {
        logger.Error("\tNo source file path found, using default");
        sourcePath = defaultSourcePath;
    }
    logger.Debug("\tThe file we are copying: %s", sourcePath.c_str());
}

/** After a failure the path is what it was. */
void FtpEventHandler::LookUpSourcePath() {
    try {
        sourcePath = lookUpSnapshot();
    } catch (const std::exception& exception) {
        logger.Warning("\tFtpEventHandler: %s", exception.what());
    } catch (...) {
        logger.Warning("\tFtpEventHandler: Error fetching value of SnapshotPath");
    }
}

/** By design the folder of the server is looked up on the camera. */
void FtpEventHandler::ResolveBasePath() {
    basePath = osa::PathUtils::RealPath(basePath);
    if (basePath.empty()) {
        logger.Warning("\tNo destination path found, using default");
        basePath = std::string(rootFolder);
    }
}

bool FtpEventHandler::IsConfigured() const {
    return true;
}

void FtpEventHandler::PerformAction(Event&) {
    try {
        if (!IsConfigured()) {
            throw osa::Exception("FtpEventHandler: not configured");
        }
        Upload();
    } catch (const osa::Exception& exception) {
        logger.Error("%s", exception.what());
    } catch (...) {
        logger.Error("FtpEventHandler: Error, unknown exception caught");
    }
}

void FtpEventHandler::Upload() const {
    const std::string remoteFile = osa::PathUtils::FormatFileName(destName);
    if (remoteFile.empty()) {
        throw osa::Exception("FtpEventHandler: Illegal filename");
    }
    const std::string remoteFullPath = RemoteFullPath(remoteFile);
    LogTransaction(remoteFile, remoteFullPath);
    RunCommand(remoteFullPath);
}

/** A folder that ends in "/", but for the root, gets a second one. */
std::string FtpEventHandler::RemoteFullPath(const std::string& remoteFile) const {
    if (basePath.empty() || basePath == rootFolder) {
        return basePath + remoteFile;
    }
    return basePath + "/" + remoteFile;
}

/** All but the password, which stands in no record of an action. */
void FtpEventHandler::LogTransaction(const std::string& remoteFile, const std::string& remoteFullPath) const {
    logger.Debug("FTP transaction info:");
    logger.Debug("\tRemote server    %s", server.c_str());
    logger.Debug("\tUsername         %s", username.c_str());
    logger.Debug("\tLocal Filename   %s", sourcePath.c_str());
    logger.Debug("\tRemote Path      %s", basePath.c_str());
    logger.Debug("\tRemote Filename  %s", remoteFile.c_str());
    logger.Debug("\tRemote fullpath  %s", remoteFullPath.c_str());
}

/** The shell reads the values as they are, and a command that is too long is cut. Consumers rely on both. */
void FtpEventHandler::RunCommand(const std::string& remoteFullPath) const {
    std::array<char, commandSize> command;
    std::snprintf(command.data(), command.size(), "ftpput -u %s -p %s %s %s %s", username.c_str(), password.c_str(),
                  server.c_str(), remoteFullPath.c_str(), sourcePath.c_str());
    logger.Debug("\t FTPEventHandler::PerformAction Starting FTP command now");
    // What went wrong ftpput says itself on standard error.
    [[maybe_unused]] const int status = std::system(command.data());
    logger.Debug("\t FTPEventHandler::PerformAction Finished FTP command now");
}

}  // namespace kelto::halvek::handler
