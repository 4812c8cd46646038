// A host that loads libKestrow.dll at run time, the way the diagnostic suite
// does, and reaches the library through the DLL's export table alone.
//
// It is linked without the import library: every call goes through
// GetProcAddress on the decorated (Itanium ABI, as mingw-w64 writes them)
// names of the exported members. The library's headers are included only for
// the layouts of the objects and their inline accessors.
//
// Usage:
//   kestrow_dll_host image <expected label of D:> [<path of libKestrow.dll>]
//     The disks come from KESTROW_DISKS, with disk-mbr.img as the second disk,
//     so that its NTFS partition answers as D: (the first disk, an NTFS volume
//     of its own, takes C:): the DLL's disk-image backend.
//   kestrow_dll_host system [<path of libKestrow.dll>]
//     No disks: the DLL's real Win32 path, on the system's drive C:.
// The exit status is 0 when every check passed.
#include <libKestrow/FileRecord.h>
#include <libKestrow/MasterFileTable.h>
#include <libKestrow/Version.h>
#include <libKestrow/Volume.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

int g_failures = 0;

void check(bool condition, const char* what) {
    std::printf("%s: %s\n", condition ? "ok" : "FAILED", what);
    if (!condition)
        ++g_failures;
}

std::string narrow(const orv::String& text) {
    std::string result;
    for (unsigned int i = 0; i < text.size(); ++i) {
        const auto unit = static_cast<unsigned int>(text.getUCS2Buffer()[i]);
        result += unit < 0x80 ? static_cast<char>(unit) : '?';
    }
    return result;
}

// The DLL beside this program, unless a path is given.
std::wstring libraryPath(const char* given) {
    if (given != nullptr) {
        const std::string text = given;
        return std::wstring(text.begin(), text.end());
    }
    wchar_t self[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, length);
    const auto slash = path.find_last_of(L"\\/");
    path.erase(slash == std::wstring::npos ? 0 : slash + 1);
    return path + L"libKestrow.dll";
}

// The exported entry points the host uses, looked up by decorated name.
// Member functions take the object as their first argument.
struct Library {
    HMODULE module = nullptr;

    const char* (*version)() = nullptr;
    void (*volumeConstruct)(Volume*, char) = nullptr;
    void (*volumeDestroy)(Volume*) = nullptr;
    bool (*volumeInitialized)(const Volume*) = nullptr;
    void (*tableConstruct)(MasterFileTable*, Volume*) = nullptr;
    void (*tableDestroy)(MasterFileTable*) = nullptr;
    bool (*tableRecordCount)(MasterFileTable*, unsigned long long*) = nullptr;
    bool (*tableValidRecord)(MasterFileTable*, const FileReference*, FileRecord*) = nullptr;
    void (*recordConstruct)(FileRecord*) = nullptr;
    void (*recordDestroy)(FileRecord*) = nullptr;

    template <class Function> bool find(Function& function, const char* name) {
        function =
            reinterpret_cast<Function>(reinterpret_cast<void (*)()>(GetProcAddress(module, name)));
        if (function == nullptr)
            std::printf("FAILED: libKestrow.dll does not export %s\n", name);
        return function != nullptr;
    }

    bool findAll() {
        bool all = true;
        all &= find(version, "_Z14kestrowVersionv");
        all &= find(volumeConstruct, "_ZN6VolumeC1Ec");
        all &= find(volumeDestroy, "_ZN6VolumeD1Ev");
        all &= find(volumeInitialized, "_ZNK6Volume11initializedEv");
        all &= find(tableConstruct, "_ZN15MasterFileTableC1ER6Volume");
        all &= find(tableDestroy, "_ZN15MasterFileTableD1Ev");
        all &= find(tableRecordCount, "_ZN15MasterFileTable16getNumMftRecordsERy");
        all &= find(tableValidRecord,
                    "_ZN15MasterFileTable17getValidMftRecordERK13FileReferenceR10FileRecord");
        all &= find(recordConstruct, "_ZN10FileRecordC1Ev");
        all &= find(recordDestroy, "_ZN10FileRecordD1Ev");
        return all;
    }
};

// Storage for one object the DLL constructs and destroys.
template <class T> struct Slot {
    alignas(T) unsigned char bytes[sizeof(T)];
    T* get() { return std::launder(reinterpret_cast<T*>(bytes)); }
};

void checkVolumeAndTable(Library& library, const std::string& expectedLabel) {
    Slot<Volume> volume;
    library.volumeConstruct(volume.get(), 'D');
    check(library.volumeInitialized(volume.get()), "Volume('D') is initialized");
    check(narrow(volume.get()->name()) == expectedLabel, "D: carries the image's label");
    check(narrow(volume.get()->fileSystem()) == "NTFS", "D: is NTFS");
    check(volume.get()->bytesPerSector() == 512, "512 bytes per sector");
    check(volume.get()->bytesPerCluster() == 4096, "4096 bytes per cluster");
    std::printf("D: \"%s\", %llu clusters\n", narrow(volume.get()->name()).c_str(),
                volume.get()->totalClusters());

    Slot<MasterFileTable> table;
    library.tableConstruct(table.get(), volume.get());
    check(table.get()->initialized(), "MasterFileTable(D:) is initialized");

    unsigned long long records = 0;
    check(library.tableRecordCount(table.get(), &records) && records >= 16,
          "the MFT holds at least the 16 system records");

    Slot<FileRecord> record;
    library.recordConstruct(record.get());
    const FileReference root = FileReference::ROOT_MFT_RECORD();
    check(library.tableValidRecord(table.get(), &root, record.get()), "record 5 reads as valid");
    check(record.get()->mftIndex() == root, "record 5 is the root directory");
    check(record.get()->parentMftIndex() == root, "the root directory is its own parent");
    library.recordDestroy(record.get());

    library.tableDestroy(table.get());
    library.volumeDestroy(volume.get());
}

// With no disks attached the DLL asks Windows itself: the volume's name and
// file system are what GetVolumeInformationW says for the same root. Whether
// the volume opens depends on the system (administrator rights, a real NTFS
// volume; under Wine it never does), so that is only reported.
void checkSystemVolume(Library& library) {
    wchar_t label[MAX_PATH + 1] = {};
    wchar_t fileSystem[MAX_PATH + 1] = {};
    const bool known = ::GetVolumeInformationW(L"\\\\.\\C:\\", label, MAX_PATH + 1, nullptr,
                                               nullptr, nullptr, fileSystem, MAX_PATH + 1) != 0;
    std::string expectedLabel;
    std::string expectedFileSystem;
    for (const wchar_t* c = label; known && *c != 0; ++c)
        expectedLabel += *c < 0x80 ? static_cast<char>(*c) : '?';
    for (const wchar_t* c = fileSystem; known && *c != 0; ++c)
        expectedFileSystem += *c < 0x80 ? static_cast<char>(*c) : '?';

    Slot<Volume> volume;
    library.volumeConstruct(volume.get(), 'C');
    std::printf("C: \"%s\" %s, %s\n", narrow(volume.get()->name()).c_str(),
                narrow(volume.get()->fileSystem()).c_str(),
                library.volumeInitialized(volume.get()) ? "opened" : "not opened");
    check(narrow(volume.get()->name()) == expectedLabel, "C: has the label Windows reports");
    check(narrow(volume.get()->fileSystem()) == expectedFileSystem,
          "C: has the file system Windows reports");
    library.volumeDestroy(volume.get());
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    const bool imageMode = mode == "image" && argc > 2;
    if (!imageMode && mode != "system") {
        std::fprintf(stderr,
                     "usage: %s image <expected label of D:> [<libKestrow.dll>]\n"
                     "       %s system [<libKestrow.dll>]\n",
                     argv[0], argv[0]);
        return 2;
    }
    const char* disks = std::getenv("KESTROW_DISKS");
    std::printf("KESTROW_DISKS=%s\n", disks != nullptr ? disks : "(not set)");
    if (!imageMode && disks != nullptr && *disks != '\0') {
        std::printf("FAILED: KESTROW_DISKS must not be set for the system's volumes\n");
        return 1;
    }

    const int dllArgument = imageMode ? 3 : 2;
    const std::wstring path = libraryPath(argc > dllArgument ? argv[dllArgument] : nullptr);
    Library library;
    library.module = LoadLibraryW(path.c_str());
    if (library.module == nullptr) {
        std::printf("FAILED: LoadLibraryW could not load the library (error %lu)\n",
                    GetLastError());
        return 1;
    }
    if (!library.findAll())
        return 1;

    check(std::strcmp(library.version(), KESTROW_EXPECTED_VERSION) == 0,
          "kestrowVersion() names this build's version");
    if (imageMode)
        checkVolumeAndTable(library, argv[2]);
    else
        checkSystemVolume(library);

    check(FreeLibrary(library.module) != 0, "FreeLibrary releases the library");
    std::printf("%d check(s) failed\n", g_failures);
    return g_failures == 0 ? 0 : 1;
}
