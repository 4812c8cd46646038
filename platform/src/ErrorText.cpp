// The English texts Windows gives (FormatMessageW, system table, en-US) for
// the error codes that the platform boundary reports.
#include "Backends.h"

#include <cstdio>

namespace kestrow::platform {

namespace {

struct ErrorText {
    DWORD code;
    const char* text;
};

// Kept sorted by code.
constexpr ErrorText kErrorTexts[] = {
    {0, "The operation completed successfully.\r\n"},
    {1, "Incorrect function.\r\n"},
    {2, "The system cannot find the file specified.\r\n"},
    {3, "The system cannot find the path specified.\r\n"},
    {4, "The system cannot open the file.\r\n"},
    {5, "Access is denied.\r\n"},
    {6, "The handle is invalid.\r\n"},
    {8, "Not enough memory resources are available to process this command.\r\n"},
    {14, "Not enough memory resources are available to complete this operation.\r\n"},
    {15, "The system cannot find the drive specified.\r\n"},
    {19, "The media is write protected.\r\n"},
    {21, "The device is not ready.\r\n"},
    {23, "Data error (cyclic redundancy check).\r\n"},
    {24, "The program issued a command but the command length is incorrect.\r\n"},
    {25, "The drive cannot locate a specific area or track on the disk.\r\n"},
    {27, "The drive cannot find the sector requested.\r\n"},
    {30, "The system cannot read from the specified device.\r\n"},
    {32, "The process cannot access the file because it is being used by another process.\r\n"},
    {38, "Reached the end of the file.\r\n"},
    {50, "The request is not supported.\r\n"},
    {53, "The network path was not found.\r\n"},
    {80, "The file exists.\r\n"},
    {87, "The parameter is incorrect.\r\n"},
    {122, "The data area passed to a system call is too small.\r\n"},
    {123, "The filename, directory name, or volume label syntax is incorrect.\r\n"},
    {131, "An attempt was made to move the file pointer before the beginning of the file.\r\n"},
    {161, "The specified path is invalid.\r\n"},
    {183, "Cannot create a file when that file already exists.\r\n"},
    {206, "The filename or extension is too long.\r\n"},
    {234, "More data is available.\r\n"},
    {259, "No more data is available.\r\n"},
    {267, "The directory name is invalid.\r\n"},
    {487, "Attempt to access invalid address.\r\n"},
    {1005, "The volume does not contain a recognized file system.\r\nPlease make sure that all "
           "required file system drivers are loaded and that the volume is not corrupted.\r\n"},
    {1006, "The volume for a file has been externally altered so that the opened file is no "
           "longer valid.\r\n"},
    {1117, "The request could not be performed because of an I/O device error.\r\n"},
    {1132, "The base address or the file offset specified does not have the proper "
           "alignment.\r\n"},
    {1392, "The file or directory is corrupted and unreadable.\r\n"},
    {1393, "The disk structure is corrupted and unreadable.\r\n"},
    {1784, "The supplied user buffer is not valid for the requested operation.\r\n"},
};

WideString widen(const char* text) {
    WideString wide;
    for (const char* p = text; *p != '\0'; ++p)
        wide.push_back(static_cast<WCHAR>(static_cast<unsigned char>(*p)));
    return wide;
}

} // namespace

WideString englishErrorText(DWORD code) {
    for (const ErrorText& entry : kErrorTexts) {
        if (entry.code == code)
            return widen(entry.text);
    }
    // FormatMessageW itself fails for a code it has no text for; callers
    // want something to show, so name the code instead.
    char fallback[64];
    std::snprintf(fallback, sizeof fallback, "Unknown error %lu (0x%08lX).\r\n",
                  static_cast<unsigned long>(code), static_cast<unsigned long>(code));
    return widen(fallback);
}

} // namespace kestrow::platform
