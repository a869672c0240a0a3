// tavk05 serve: the service's private files and secrets, and the encoding of
// finished images into the records library's formats.
#ifndef TAVK05_SERVE_STORE_H
#define TAVK05_SERVE_STORE_H

#include <map>
#include <string>
#include <vector>

namespace serve {

// Random bytes from the kernel, as lower-case hex (2 * nBytes characters).
bool RandomHex(size_t nBytes, std::string* pHex);

// Comparison that takes the same time wherever the strings differ.
bool SecretEquals(const std::string& strA, const std::string& strB);

// Whether an Origin header names a web origin the service may pair with:
// https://HOST[:PORT], or http:// on a loopback host (lower case, no path).
bool PairableOrigin(const std::string& strOrigin);

// The paired origins and their tokens, kept in origins.json (mode 0600) in
// $XDG_CONFIG_HOME/tavk05 or ~/.config/tavk05 (mode 0700). The folder is
// created when missing; one that is a link, or that another user owns, is
// refused, and so is such a file.
class TokenStore {
public:
    // Opens the folder and reads the file; false with the reason.
    bool Open(std::string* pError);
    const std::map<std::string, std::string>& Tokens() const { return m_mapTokens; }
    // Changes the list and writes the file atomically; false with the reason.
    bool Set(const std::string& strOrigin, const std::string& strToken, std::string* pError);
    bool Remove(const std::string& strOrigin, std::string* pError);
    const std::string& Folder() const { return m_strFolder; }

private:
    bool Save(std::string* pError);
    std::string m_strFolder;
    std::map<std::string, std::string> m_mapTokens;
};

// A finished 600 x 600 image in one of the formats the protocol offers:
// "png", "wsq", "fir" (ISO/IEC 19794-4:2011), "an2" (ANSI/NIST-ITL, Type-14
// WSQ). False with the reason (an unknown format, or the encoder's status).
bool EncodeImage(const std::string& strFormat, const std::vector<unsigned char>& vecPixels, bool bRolled, int nQuality,
                 std::vector<unsigned char>* pOut, std::string* pError);
// The formats, in the order the protocol lists them, and their media types.
const std::vector<std::string>& ImageFormats();
const char* FormatMediaType(const std::string& strFormat);

}  // namespace serve

#endif
