// The program that the compiled headers belong to.
int main() { return 0; }
