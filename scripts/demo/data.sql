-- Panel data of the demo: one client owning the domain example.com (also
-- reachable as the domain alias example.net), the mailbox info@example.com
-- with the mail alias sales, and two autoresponder rules on it.
SET NAMES utf8mb4;

INSERT INTO misc (param, val) VALUES
  ('mysql41_compatible', 'true'),
  ('admin_email', 'hostmaster@panel.example'),
  ('FullHostName', 'panel.example');

INSERT INTO clients (id, email, pname, login) VALUES
  (1, 'ada@client.example', 'Ada Lindqvist', 'ada');

INSERT INTO domains (id, name, cl_id) VALUES (1, 'example.com', 1);
INSERT INTO domainaliases (dom_id, name, mail) VALUES (1, 'example.net', 'true');

INSERT INTO mail (id, mail_name, dom_id) VALUES (1, 'info', 1);
INSERT INTO mail_aliases (mn_id, alias) VALUES (1, 'sales');

-- Rule 1 answers messages whose subject mentions "price", with a subject
-- template, a Reply-To address, a forwarding address and two attachment
-- files, of which only prices.txt exists in the repository.
-- Rule 2 answers every message, at most once a day per sender, in
-- ISO-8859-1, with "Re: " and the incoming subject.
INSERT INTO mail_resp (id, mn_id, keystr, key_where, text, resp_on, ans_freq, mem_limit,
                       subject, reply_to, charset, content_type) VALUES
  (1, 1, 'price', 'subj',
   'Dear customer,\n\nthank you for asking. Our current price list is attached.\n\nThe sales team',
   'true', '3', '100', 'Prices for <request_from>: <request_subject>', 'orders@example.com',
   'UTF-8', 'text/plain'),
  (2, 1, NULL, NULL,
   'Our office is closed until Monday. Your message will be answered then.',
   'true', '1', NULL, NULL, NULL, 'ISO-8859-1', NULL);

INSERT INTO resp_forward (rn_id, address) VALUES (1, 'archive@example.org');

INSERT INTO resp_attach (rn_id, filename) VALUES (1, 'prices.txt'), (1, 'catalogue.pdf');
