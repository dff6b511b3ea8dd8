#ifndef BRANTLE_STANDARD_SFTP_PIPELINE_H
#define BRANTLE_STANDARD_SFTP_PIPELINE_H

#include <exception>
#include <functional>
#include <string>
#include <vector>

#include <brantle/sftp/sftp_status.h>
#include <brantle/thornel/descriptor_io.h>

#include "standard/sftp_replies.h"

namespace cindral::standard {

/// A copy between an open remote file and a local descriptor, with many requests in flight. Even after a
/// failure, the replies to all requests sent are awaited, so that the session stays usable.
class SftpPipeline : public SftpReplies {
public:
    /// Maximum number of requests in flight.
    static constexpr unsigned int MAX_REQUESTS = 1024;

    virtual ~SftpPipeline() = default;

    /// Copies the whole file. Returns 0; -1 with the server's message in the status; minus errno of a local
    /// call. Throws SshProtocolError for replies that violate the protocol.
    int Run();
    /// Throws what `progress` has thrown, which has ended the copy with -ECANCELED.
    void Rethrow() const {
        if (_thrown) std::rethrow_exception(_thrown);
    }
    unsigned long long Done() const { return _done; }

protected:
    /// A request that waits for its reply, and then for its turn.
    struct Request {
        unsigned int id = 0;
        unsigned long long offset = 0;
        unsigned int size = 0;
        bool isWaiting = false;  ///< for the reply
        bool isAnswered = false; ///< before its turn
        Bytes data;              ///< of such a reply; empty: the end of the file
    };

    using Progress = std::function<void(unsigned long long done)>;

    SftpPipeline(DataPort& port, SftpStatus& status, View handle, unsigned int inFlight, Progress progress);

    /// Sends a request if there is one to be sent now. False if there is none.
    virtual bool SendNext() = 0;
    /// Handles the reply, of that type, to a request.
    virtual void TakeAnswer(Request& request, int type, Reader& fields) = 0;

    /// Whether another request may be sent.
    bool HasRoom() const { return !_requests[_next].isWaiting && !_requests[_next].isAnswered; }
    /// Records a request that is about to be sent. REQUIRES: HasRoom().
    Request& NewRequest(unsigned long long offset, unsigned int size);
    /// Records that a request is about to be sent again, for another part.
    void Renew(Request& request, unsigned long long offset, unsigned int size);
    /// The oldest request still in use.
    Request& Turn() { return _requests[_turn]; }
    void EndTurn();
    /// Ends the copy with the server's status, or with minus errno.
    void FailWith(SftpStatus const& status);
    void FailWith(int result);
    bool HasFailed() const { return _result != 0; }
    SftpStatus ReadStatus(Reader& fields) const;

    DataPort& _port;
    Bytes const _handle;
    unsigned int _waiting = 0; ///< requests without a reply
    unsigned long long _done = 0;

private:
    void TakeReply(View message) override;
    void Report();

    SftpStatus& _status;
    Progress _progress;
    std::vector<Request> _requests; ///< used in a ring; an id ends in the place of its request
    unsigned int _next = 0;
    unsigned int _turn = 0;
    unsigned int _sent = 0; ///< requests so far; the high part of their ids
    int _result = 0;
    std::exception_ptr _thrown; ///< by the progress
};

/// Copies from the server. The data is written in order, as the descriptor may be a pipe or a terminal.
class SftpDownload : public SftpPipeline {
public:
    /// `size` is what the server announced, ~0 if it didn't.
    SftpDownload(DataPort& port, SftpStatus& status, View handle, unsigned int inFlight, Progress progress,
                 int fd, unsigned long long size);
    virtual ~SftpDownload() = default;

private:
    bool SendNext() override;
    void TakeAnswer(Request& request, int type, Reader& fields) override;
    void SendRead(Request const& request);
    void TakePart(Request& request, View data);
    bool Store(View data);

    DescriptorIO const _io;
    unsigned long long _size;
    unsigned long long _asked = 0; ///< the next request's offset
    bool _hasRest = false;         ///< the current request has returned less than requested
    bool _atEnd = false;
};

/// Copies to the server.
class SftpUpload : public SftpPipeline {
public:
    SftpUpload(DataPort& port, SftpStatus& status, View handle, unsigned int inFlight, Progress progress,
               int fd);
    virtual ~SftpUpload() = default;

private:
    bool SendNext() override;
    void TakeAnswer(Request& request, int type, Reader& fields) override;
    long ReadFile(unsigned char* to, std::size_t size);
    void StoreHeader(unsigned char* to, unsigned int size);

    int _fd;
    unsigned long long _offset = 0;
    bool _atEnd = false;
    std::size_t const _header; ///< bytes of a message before the data
    Bytes _staged;             ///< a message for which there is no room in one piece
};

} // namespace cindral::standard

#endif
