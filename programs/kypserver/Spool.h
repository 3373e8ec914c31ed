// The one directory into which received files go, and a file on its way there.
//
// A file is written under a name of the spool's own and gets the one by which it is known in one
// step, when all of it is on the disk. So whoever looks into the directory finds whole files only,
// beside hidden ones that are none of his business. No name leads out of the directory: names have
// no directories in them, and nothing that stands there already is followed or written to.
#ifndef KYP_PROGRAMS_KYPSERVER_SPOOL_H
#define KYP_PROGRAMS_KYPSERVER_SPOOL_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kypserver {

// What becomes of the name that a sender gives: its part behind the last "/". Empty when that is no
// name for a file here: nothing, "." or "..", more than 255 bytes, a control character or a NUL
// anywhere, or the beginning by which the spool knows its own files.
std::string spool_name(std::string const& given);

// A file that is being received.
//
// Owns:     its descriptor and, until it is published, its hidden file.
// Threads:  one at a time.
// Lifetime: within that of its spool.
class CIncomingFile {
public:
    CIncomingFile(int directory, int fd, std::string hiddenName);

    // Removes what was not published.
    ~CIncomingFile();
    CIncomingFile(CIncomingFile const&) = delete;
    CIncomingFile& operator=(CIncomingFile const&) = delete;

    // Appends. Returns KYP_OK, KYP_ERR_DISK_FULL or KYP_ERR_WRITE_FILE.
    int write(char const* data, size_t size);

    // Waits until all of it is on the disk. Returns as write() does.
    int sync();

    // Gives it its name; what had that name is gone. Returns KYP_OK, or KYP_ERR_CREATE_FILE.
    int publish(std::string const& name);

private:
    int const m_directory;  // the spool's
    int m_fd;
    std::string m_hiddenName;  // empty once it is published
    size_t m_fresh;            // bytes that the kernel was not yet asked to write out
};

// Owns:     the directory's descriptor, and with it a lock that keeps a second server out.
// Threads:  one at a time.
class CSpool {
public:
    CSpool();
    ~CSpool();
    CSpool(CSpool const&) = delete;
    CSpool& operator=(CSpool const&) = delete;

    // Takes `directory`, and removes what an earlier server left half received. Of missing
    // directories only the usual one is made. Returns an empty text, or what is in the way and what
    // to do about it.
    std::string open(std::string const& directory);

    // Bytes that a file may still have.
    uint64_t room() const;

    // Begins a file. Returns KYP_OK, KYP_ERR_DISK_FULL or KYP_ERR_CREATE_FILE; `file` is null then.
    int begin(std::unique_ptr<CIncomingFile>& file);

private:
    void remove_leftovers() const;

    int m_directory;          // -1 until open
    unsigned int m_nextFile;  // in hidden names
};

}  // namespace kypserver

#endif
