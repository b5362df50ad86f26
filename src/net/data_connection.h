// The passive data connection: reading the server's address out of a PASV
// reply and connecting to it.
#pragma once

#include <netinet/in.h>

#include <cstddef>

struct FtpConnection;

// Reads the passive address out of a PASV reply ("227 ... h1,h2,h3,h4,p1,p2"):
// address gets family, address and port, text the dotted address as the
// reply spelled it (cut to text_size, always terminated; text_size > 0).
// 0, or -1 after reporting what is wrong with the reply.
int ParsePassiveReply(const char* reply, sockaddr_in* address, char* text, size_t text_size);
// Reads the port out of an EPSV reply ("229 ... (|||port|)", any printable
// delimiter in place of "|"). 0, or -1 after reporting what is wrong.
int ParseExtendedPassiveReply(const char* reply, int* port);
// The command that asks for a passive data connection: EPSV on IPv6, where
// a PASV reply cannot carry the address, else PASV.
const char* PassiveCommand(const FtpConnection* control);
// Connects the control record's data record to the port of the reply to
// PassiveCommand, on the control connection's peer address (a PASV reply's
// address is checked, then not used), closing any data connection it had;
// under TLS the data connection is encrypted too. 0, or -1 after a message.
int ConnectDataConnection(FtpConnection* control, const char* passive_reply);
