#ifndef SERVER_COMMANDWORDS_H
#define SERVER_COMMANDWORDS_H

// Command lines of the control interface: words separated by blanks, where a
// word in double quotes may hold blanks (\" and \\ inside stand for " and \),
// so that file names with spaces survive the trip through the socket.

#include <string>
#include <vector>

#include "reference/src/status.h"

namespace ReplayServer {

// False (and `words` incomplete) when a quote is not closed.
bool SplitCommandWords(const std::string& line, std::vector<std::string>& words);

// The word as SplitCommandWords reads it back: quoted when it is empty or
// holds a blank, a quote or a backslash.
std::string QuoteCommandWord(const std::string& word);

// The line `ReplayManager send` passes on. One argument is a whole command
// line (split as above); several are its words. The file of a replay command
// is made absolute against the sender's working directory, since the server
// runs elsewhere. Fails for an unclosed quote or no command.
ReplayPlatform::Status SenderCommandLine(const std::vector<std::string>& arguments,
                                         std::string& line);

}  // namespace ReplayServer

#endif
