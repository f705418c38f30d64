# The foundation: texts, formatter, numbers, hash table.
chapter "Texts and numbers"
say "A status line goes out through a buffer of 20 characters; each piece is formatted anew, from where the last one ended:"
show xprintf_pieces
say "Lines of a configuration, cleaned, kept in a list and shown with their control characters visible:"
printf '  HOST  =  gateway-7 \r\nPort=8080\nbanner = welcome\tto \033[1mgateway\n' >/tmp/foundation.conf
show strutil_keys </tmp/foundation.conf
say "Numbers in every base; only the plain decimal form counts as one:"
show numconv_radix 255 17o 007 -42
say "Words of the same lines, counted in a hash table:"
show hashtable_words gateway-7 = modem </tmp/foundation.conf
