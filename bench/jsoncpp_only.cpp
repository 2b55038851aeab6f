// The least that a program linked with jsoncpp can cost: what the program's own start is measured
// against.
int main() {}
