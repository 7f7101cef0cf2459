#include "handler/FolderEventHandler.h"

#include "env/HandlerRegistry.h"
#include "env/SettingsReader.h"
#include "handler/FolderSize.h"
#include "handler/ShortFileName.h"
#include "handler/SizeWithSuffix.h"
#include "handler/SnapshotPath.h"
#include "handler/SnapshotSaving.h"
#include "kelto/core/Logger.h"
#include "kelto/core/StringUtil.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"
#include "kelto/osa/PathUtils.h"

#include <sys/stat.h>

#include <memory>

namespace kelto::halvek::handler {

namespace {

std::unique_ptr<EventHandler> Create(HalvekEnv*) {
    return std::make_unique<FolderEventHandler>();
}

constexpr HandlerRegistration registration{"Folder", Create, 0};
[[gnu::init_priority(RegisterFolder)]] const HandlerRegistrar registrar(&registration);

uint64_t ParseLimit(const std::string& text) {
    uint32_t bytes = 0;
    return core::StringUtil::TryParse(text, bytes) ? bytes : ParseSizeWithSuffix(text);
}

off_t GetFileSize(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        throw osa::Exception("FolderEventHandler: can't stat source file, does it exist?");
    }
    return status.st_size;
}

}  // namespace

FolderEventHandler::FolderEventHandler() : logger(core::Logger::GetLogger("halvek")) {}

void FolderEventHandler::Configure(const core::IniFile::Group& group) {
    EventHandler::Configure(group);
    const SettingsReader reader(group);
    Settings read = settings.Copy();
    reader.TryRead(keys.Text("DestinationPath"), read.destinationPath);
    reader.TryRead(keys.Text("DestName"), read.destName);
    reader.TryRead(keys.Text("LimitSize"), read.limitSize);
    settings.Store(read);
    if (!reader.Read(keys.Boolean("Attachment"))) {
        throw osa::Exception("FolderEventHandler: No file attachment wanted, what's the point then?");
    }
    read.sourcePath = LookUpSnapshotPath();
    settings.Store(read);
    logger.Debug("\tThe file we are copying: %s", read.sourcePath.c_str());
    if (read.sourcePath.empty()) {
        throw osa::Exception("FolderEventHandler: the path of the source file was not found");
    }
}

bool FolderEventHandler::IsConfigured() const {
    return true;
}

void FolderEventHandler::PerformAction(Event&) {
    try {
        if (!IsConfigured()) {
            throw osa::Exception("FolderEventHandler: not configured");
        }
        SaveSnapshot();
    } catch (const osa::Exception& exception) {
        logger.Error("%s", exception.what());
    } catch (...) {
        logger.Error("FolderEventHandler: Error, unknown exception caught");
    }
}

void FolderEventHandler::SaveSnapshot() {
    Settings current = settings.Copy();
    const std::string realDestination = osa::PathUtils::RealPath(current.destinationPath);
    if (!IsSnapshotSavingAllowed(realDestination)) {
        return;
    }
    const std::string realSource = osa::PathUtils::RealPath(current.sourcePath);
    const std::string fileName = osa::PathUtils::FormatFileName(current.destName);
    if (realDestination.empty() || realSource.empty() || fileName.empty()) {
        throw osa::Exception("FolderEventHandler: Illegal file name or path");
    }
    current.destinationPath = realDestination;
    current.sourcePath = realSource;
    settings.Store(current);
    const uint64_t limit = ParseLimit(current.limitSize);
    if (limit == 0) {
        logger.Debug("Zero limit size, so limit size functionality skipped");
    } else {
        MakeRoom(realDestination, realSource, limit);
    }
    CopySnapshot(realSource, osa::PathUtils::PathConcat(realDestination, fileName));
}

/** Deletes files until the snapshot fits below the limit. By design a limit of 4 GiB or more deletes nothing. */
void FolderEventHandler::MakeRoom(const std::string& directory, const std::string& source, uint64_t limit) const {
    uint32_t directorySize = GetDirectorySize(directory);
    if (directorySize == 0) {
        throw osa::Exception("FolderEventHandler: can't properly check directory size restraints");
    }
    const off_t fileSize = GetFileSize(source);
    while (limit <= UINT32_MAX && limit < static_cast<uint32_t>(fileSize) + directorySize) {
        logger.Debug("Directory past limit, deleting oldest file");
        logger.Debug("Current File size:      %ld", static_cast<long>(fileSize));
        logger.Debug("Current Directory size: %u", directorySize);
        logger.Debug("Current Limit size:     %llu", static_cast<unsigned long long>(limit));
        if (!DeleteOldestFile(directory)) {
            throw osa::Exception("FolderEventHandler: unable to delete oldest file, permission problem?");
        }
        directorySize = GetDirectorySize(directory);
    }
}

/** A name that the file system refuses gets one more try under a short one. */
void FolderEventHandler::CopySnapshot(const std::string& source, const std::string& destination) const {
    if (Copy(source, destination)) {
        return;
    }
    logger.Debug("Copy failed, trying shorter filename");
    if (!Copy(source, MakeShortFileName(destination))) {
        logger.Debug("Copy really failed now");
    }
}

bool FolderEventHandler::Copy(const std::string& source, const std::string& destination) const {
    logger.Information("Writing file %s to %s", source.c_str(), destination.c_str());
    if (destination.empty() || !osa::FileUtils::CopyFile(source, destination, true)) {
        return false;
    }
    logger.Debug("Copy succeeded");
    return true;
}

}  // namespace kelto::halvek::handler
