// Composition of the reply into the response file (resp_uu_file_name).
#pragma once

#include <string>
#include <vector>

#include "autoresponder/mail_content.h"
#include "autoresponder/rules.h"
#include "autoresponder/templates.h"

// "--------=_" and 29 letters from rand().
std::string makeBoundaryStr();

// The five placeholders of an answer subject, bound to `mail` on first use.
const par_templ* autoresp_templs(const Mail_content& mail);
inline constexpr unsigned kAutorespTemplCount = 5;

// The subject before encoding: "Re: " + incoming subject, or the rule's
// subject with placeholders expanded (at most 999 bytes).
std::string response_subject(const Resp_rule& rule, const Mail_content& mail);

// Creates the response file (mkstemp on resp_uu_file_name); result ignored.
void create_response_file();

// Writes the complete reply. IDN failure and exhausted memory end the process
// through the message log with status 1.
void compose_response(const Mail_content& mail, const Resp_rule& rule,
                      const std::string& attach_dir,
                      const std::vector<std::string>& found_attachments,
                      const std::string& boundary);
