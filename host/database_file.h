// The file the database is in: one that the user named and keeps, or a temporary one.

#ifndef KELVARA_HOST_DATABASE_FILE_H_
#define KELVARA_HOST_DATABASE_FILE_H_

#include <filesystem>

class DatabaseFile {
public:
    // With an empty path, makes a temporary folder for it. Throws InputError when the file has
    // something in it already or cannot be made.
    explicit DatabaseFile(std::filesystem::path const& wanted);
    DatabaseFile(DatabaseFile const&) = delete;
    DatabaseFile& operator=(DatabaseFile const&) = delete;
    // Removes what is temporary, SQLite's companion files included. exit() does so too.
    ~DatabaseFile();

    std::filesystem::path const& Path() const { return path; }
    bool IsTemporary() const { return !folder.empty(); }

private:
    std::filesystem::path folder;  // the temporary one, or empty
    std::filesystem::path path;    // absolute
};

#endif  // KELVARA_HOST_DATABASE_FILE_H_
