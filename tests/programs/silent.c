/* SPDX-License-Identifier: MIT */
/* Linked statically: nothing that it does can be recorded. */
int main(void) { return 0; }
