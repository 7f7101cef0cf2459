#pragma once

#include <map>
#include <string>

namespace kelto::interfaces {

/** One of the interface files of the camera's services: the signatures of its methods and signals. */
class InterfaceFile {
public:
    struct Method {
        std::string in;
        std::string out;
    };

    /** Reads the file of "com.kelto.<provider>"; throws std::runtime_error. */
    explicit InterfaceFile(const std::string& provider);

    const std::string& GetObjectPath() const { return objectPath; }
    const std::string& GetName() const { return name; }
    const std::map<std::string, Method>& GetMethods() const { return methods; }
    const std::map<std::string, std::string>& GetSignals() const { return signals; }

private:
    std::string objectPath;
    std::string name;
    std::map<std::string, Method> methods;
    std::map<std::string, std::string> signals;
};

}  // namespace kelto::interfaces
