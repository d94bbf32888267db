// Misuse inside the framework is thrown as these; `Process` and the thread
// helpers turn them into failed results.
#pragma once

#include <stdexcept>
#include <string>

namespace Orogen {

class QXException : public std::runtime_error {
public:
    explicit QXException(const std::string& message) : std::runtime_error(message) {}
};

class ParameterException : public QXException {
public:
    ParameterException() : QXException("Parameter specified does not exist!") {}
};

class FileAccessException : public QXException {
public:
    FileAccessException() : QXException("The filename specified could not be accessed.") {}
    // Carries the path that failed, for the host's log.
    explicit FileAccessException(const std::string& path)
        : QXException("The filename specified could not be accessed."), path(path) {}
    std::string path;
};

}  // namespace Orogen
