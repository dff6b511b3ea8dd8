#ifndef BRANTLE_BRANTLE_H
#define BRANTLE_BRANTLE_H

/// Everything that the library offers, in one header.

#include <generic/autoptr>
#include <generic/gcmp>
#include <generic/handle>
#include <generic/tmap>
#include <generic/tolist>
#include <generic/tpmap>
#include <generic/tppqueue>
#include <generic/tpvarr>
#include <generic/tset>
#include <generic/tslist>
#include <generic/tsortedvector>

#include <brantle/thornel/bnode.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/client_socket.h>
#include <brantle/thornel/descriptor_io.h>
#include <brantle/thornel/except.h>
#include <brantle/thornel/fatal.h>
#include <brantle/thornel/file_descriptor.h>
#include <brantle/thornel/ipstream.h>
#include <brantle/thornel/olist.h>
#include <brantle/thornel/pathname.h>
#include <brantle/thornel/server_socket.h>
#include <brantle/thornel/sock_io.h>
#include <brantle/thornel/sock_stream.h>
#include <brantle/thornel/split.h>
#include <brantle/thornel/stream_buffer.h>
#include <brantle/thornel/string_splitter.h>
#include <brantle/thornel/string_t.h>
#include <brantle/thornel/string_tok.h>
#include <brantle/thornel/text.h>

#include <brantle/cindral/big_num.h>
#include <brantle/cindral/bin_buffer.h>
#include <brantle/cindral/block_cipher.h>
#include <brantle/cindral/cascadable_stream.h>
#include <brantle/cindral/digest.h>
#include <brantle/cindral/enter_password.h>
#include <brantle/cindral/euc_vector.h>
#include <brantle/cindral/exceptions.h>
#include <brantle/cindral/hex_buffer.h>
#include <brantle/cindral/key_types.h>
#include <brantle/cindral/mac.h>
#include <brantle/cindral/private_key.h>
#include <brantle/cindral/public_key.h>
#include <brantle/cindral/random.h>
#include <brantle/cindral/save_termios.h>
#include <brantle/cindral/sbuf_adapter.h>
#include <brantle/cindral/signature.h>
#include <brantle/cindral/sock_stream_adapter.h>
#include <brantle/cindral/socket_buffer.h>
#include <brantle/cindral/string_buffer.h>
#include <brantle/cindral/tty_modes.h>

#include <brantle/event/iomultiplexer.h>
#include <brantle/event/iomultiplexer_dispatcher.h>
#include <brantle/event/iomultiplexer_task.h>
#include <brantle/event/locks.h>
#include <brantle/event/timers.h>

#include <brantle/trust/known_hosts.h>
#include <brantle/trust/ssh_agent_access.h>

#include <brantle/packet/auth_messages.h>
#include <brantle/packet/channel_messages.h>
#include <brantle/packet/global_requests.h>
#include <brantle/packet/kex_messages.h>
#include <brantle/packet/packet.h>
#include <brantle/packet/packet_decoder.h>
#include <brantle/packet/packet_encoder.h>
#include <brantle/packet/packet_stream.h>
#include <brantle/packet/session_requests.h>
#include <brantle/packet/ssh_buffer.h>
#include <brantle/packet/transport_messages.h>

#include <brantle/kex/dh_exchange.h>
#include <brantle/kex/dh_gex_parameters.h>
#include <brantle/kex/kex_type.h>

#include <brantle/channel/ssh_channel.h>
#include <brantle/channel/ssh_channel_mgr.h>
#include <brantle/channel/ssh_data_stream.h>
#include <brantle/channel/tcp_forwarding.h>
#include <brantle/channel/window_adjust.h>
#include <brantle/channel/x11_forwarding.h>

#include <brantle/session/kbd_interactive.h>
#include <brantle/session/ssh_session.h>

#include <brantle/apps/scp_session.h>
#include <brantle/apps/ssh_cmd_session.h>
#include <brantle/apps/ssh_interactive_session.h>

#include <brantle/sftp/dir_entry.h>
#include <brantle/sftp/sftp_block.h>
#include <brantle/sftp/sftp_client.h>
#include <brantle/sftp/sftp_client_session.h>
#include <brantle/sftp/sftp_file_attr.h>
#include <brantle/sftp/sftp_file_handle.h>
#include <brantle/sftp/sftp_name.h>
#include <brantle/sftp/sftp_packet.h>
#include <brantle/sftp/sftp_replies.h>
#include <brantle/sftp/sftp_requests.h>
#include <brantle/sftp/sftp_status.h>
#include <brantle/sftp/sftp_string.h>

#endif
