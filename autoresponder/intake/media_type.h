// Reading a Content-Type field body: its main type, which decides whether an
// entity is text or a multipart, and its parameters, which give the charset
// of the text entity and the boundary of a multipart.
//
// The field body is a media type, then parameters, each after a ";":
// attribute "=" value, the value a token or a quoted string (quotes removed,
// backslash escapes undone; an unterminated one runs to the end). Blanks,
// line breaks and comments may stand around every piece. The media type
// itself is not checked: "text; charset=x" has the parameter charset.
// Control characters count as blanks between the pieces. A
// parameter that cannot be read (no "=", no value) is skipped up to the next
// ";" outside quotes and comments, and so is anything after a value.
//
// Continuations and charset-tagged values (RFC 2231) are joined and decoded:
// name*0, name*1, ... in the order of their numbers, "%XX" undone in the
// sections written name*N*= and in a name*= value, whose charset'language'
// prefix is dropped; more than 4096 sections are not joined. The decoded bytes are not converted
// from the tagged charset, and encoded words in a value are not decoded: the values this program
// reads are charset names and boundaries, which are ASCII.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// The main type: the first token, after blanks, control characters and
// comments, up to a blank, a control character or a tspecial ("/", ";",
// "(", ...); empty when there is none. Compared without regard to case by
// the caller.
std::string_view MediaMainType(std::string_view content_type);

// The value of the first parameter whose attribute is `name` (without regard
// to case), with its continuations; nullopt when there is none.
std::optional<std::string> MediaTypeParameter(std::string_view content_type, std::string_view name);
