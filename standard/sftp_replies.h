#ifndef BRANTLE_STANDARD_SFTP_REPLIES_H
#define BRANTLE_STANDARD_SFTP_REPLIES_H

#include "standard/data_port.h"

namespace cindral::standard {

/// Cuts the data of a channel into SFTP messages (draft-ietf-secsh-filexfer-02, section 3).
class SftpReplies : public DataReceiver {
public:
    /// Longest message accepted; listings of some servers need it.
    static constexpr unsigned int MAX_MESSAGE = 16 * 1024 * 1024;

    void TakeData(View data) final;
    /// Whether part of a message has arrived.
    bool HasPart() const { return !_part.empty(); }
    /// Bytes of it.
    std::size_t PartSize() const { return _part.size(); }
    void DropPart() { _part.clear(); }

protected:
    /// A message: its type and fields, without the length. The view is valid during the call only.
    virtual void TakeReply(View message) = 0;

private:
    std::size_t TakeWhole(View data);

    Bytes _part;
    Bytes _whole; ///< the complete message; both keep their memory
};

} // namespace cindral::standard

#endif
