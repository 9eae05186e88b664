// Composition of the reply into the response file (resp_uu_file_name).
#pragma once

#include <string>
#include <vector>

#include "autoresponder/mail_content.h"
#include "autoresponder/rules.h"
#include "autoresponder/templates.h"
#include "lib/unique_fd.h"

// "--------=_" and 29 letters from rand().
std::string makeBoundaryStr();

// The five placeholders of an answer subject, bound to `mail` on first use;
// later calls return the same table whatever they are given.
const par_templ* autoresp_templs(const Mail_content& mail);
inline constexpr unsigned kAutorespTemplCount = 5;

// The subject before encoding: "Re: " + incoming subject, or the rule's
// subject with placeholders expanded (at most kResponseSubjectMax bytes).
inline constexpr unsigned kResponseSubjectMax = 999;
std::string response_subject(const Resp_rule& rule, const Mail_content& mail);

// The descriptor mkstemp returns for the response file. Nothing is written
// through it (the reply is written by name); it stays open until the reply is
// complete. -1 when mkstemp failed, as it does for every reply after the
// first of a run, whose name no longer ends in XXXXXX.
using Response_file_fd = Unique_fd;

// Creates the response file (mkstemp on resp_uu_file_name); a failure leaves
// the name as it was and is not reported.
Response_file_fd create_response_file();

// Writes the complete reply, with `extra_fields` (whole lines) after its
// Subject, and then closes `response_fd`. An unwritable file
// drops the reply silently (delivery notices only a file it cannot open). IDN
// failure and exhausted memory end the process through the message log with
// status 1.
void compose_response(const Mail_content& mail, const Resp_rule& rule,
                      const std::string& attach_dir,
                      const std::vector<std::string>& found_attachments,
                      const std::string& resp_boundary, Response_file_fd response_fd,
                      const std::string& extra_fields = {});
