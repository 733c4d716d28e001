#pragma once
// Validation of an hraw file before it is read, for callers that take files
// from users (the command-line tool).  The plain readers in ImageFile.h stay
// unchecked.

#include <string>

// True when path can be opened, its 12-byte header holds positive sizes with
// rows and cols at most 65,535 and bands * rows * cols within int (the
// readers' callers index with int), and the file is exactly
// 12 + 4 * bands * rows * cols bytes.  bands, rows, cols receive the header
// values whenever it could be read.  On false, error names the file and says
// what is wrong.
bool checkHrawFile(const std::string& path, int& bands, int& rows, int& cols, std::string& error);
