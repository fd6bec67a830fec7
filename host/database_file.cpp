#include "database_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <system_error>

#include "input_error.h"

namespace fs = std::filesystem;

namespace {

// The temporary folder, while there is one. For an exit() that runs no destructor of main's
// objects: it is called while the main thread waits for the clients, so nobody changes this
// meanwhile.
fs::path& Leftover() {
    static fs::path& leftover = *new fs::path;
    return leftover;
}

void RemoveLeftover() {
    std::error_code ignored;
    if (!Leftover().empty()) fs::remove_all(Leftover(), ignored);
    Leftover().clear();
}

fs::path MakeTemporaryFolder() {
    std::error_code error;
    fs::path const parent = fs::temp_directory_path(error);
    if (error) throw InputError("there is no folder for temporary files: " + error.message());
    std::string name = (parent / "zohost-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw InputError(parent.string() +
                         ": no temporary folder can be made in it: " + std::strerror(errno));
    }
    return name;
}

void RefuseContents(fs::path const& file) {
    std::error_code error;
    fs::file_status const status = fs::status(file, error);
    if (!fs::exists(status)) return;
    if (!fs::is_regular_file(status)) throw InputError(file.string() + ": not a regular file");
    if (fs::file_size(file, error) != 0 || error) {
        throw InputError(file.string() +
                         ": the file is not empty; zohost does not overwrite a database");
    }
}

void MakeEmpty(fs::path const& file) {
    std::ofstream const made(file, std::ios::binary | std::ios::app);
    if (!made) {
        throw InputError(file.string() + ": the database cannot be made: " + std::strerror(errno));
    }
}

}  // namespace

DatabaseFile::DatabaseFile(fs::path const& wanted) {
    if (wanted.empty()) {
        folder = MakeTemporaryFolder();
        Leftover() = folder;
        [[maybe_unused]] static int const registered = std::atexit(RemoveLeftover);
        path = folder / "characters.db";
        return;
    }
    // An absolute path is never one of the names that mean something special to SQLite.
    path = fs::absolute(wanted);
    // SQLite would throw the companions of a new database away.
    for (char const* suffix : {"", "-wal", "-journal"}) RefuseContents(path.string() + suffix);
    MakeEmpty(path);
}

DatabaseFile::~DatabaseFile() {
    if (IsTemporary()) RemoveLeftover();
}
