/* SPDX-License-Identifier: MIT */
/* Reads "key = value" lines from standard input, keeps the well-formed ones in a list, and prints them back in order:
 * keys in lower case, control characters made visible. */
#include <stdio.h>
#include <stdlib.h>
#include <vxutils/list.h>
#include <vxutils/memstream.h>
#include <vxutils/strutil.h>

struct setting {
    list_link link; /* first, so that a link is the setting it lives in */
    char key[32];
    char value[64];
};

/* Makes a setting of one line, or NULL when it has no equals sign. */
static struct setting *parse(char *line) {
    char *const sign = strchr(line, '=');
    struct setting *one;

    if (sign == NULL) return NULL;
    *sign = '\0';
    one = zalloc(sizeof *one);
    if (one == NULL) return NULL;
    strlcpy(one->key, strtolower(stripwhite(line)), sizeof one->key);
    strlcpy(one->value, stripwhite(sign + 1), sizeof one->value);
    return one;
}

int main(void) {
    list_link settings = {&settings, &settings};
    char line[256], summary[48], shown[128];
    mem_stream stream = {summary, sizeof summary};

    while (fgets(line, sizeof line, stdin) != NULL) {
        struct setting *const one = parse(line);
        if (one != NULL) list_add_tail(&one->link, &settings);
    }
    mem_stream_puts(&stream, "keys:");
    while (!list_empty(&settings)) {
        struct setting *const one = (struct setting *)settings.next;
        printf("%s is %s \"%s\"\n", one->key, is_number(one->value) ? "number" : "text",
               escape(one->value, sizeof one->value, shown, sizeof shown));
        mem_stream_printf(&stream, " %s", one->key);
        list_del(&one->link);
        free(one);
    }
    puts(summary);
    return 0;
}
