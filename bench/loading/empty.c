/* SPDX-License-Identifier: MIT */
/* A daemon that does nothing: what remains is the cost of loading the libraries it was linked to. */
int main(void) { return 0; }
