# extract_programs.awk -v name=FOLDER/PAGE PAGE.md: writes the C++ programs of a page to
# FOLDER/PAGE-1.cpp and so on. A program is all ```cpp blocks up to and with the one that has `main`;
# what comes after the last is a program too, whose `main` does nothing. A ```text block behind a
# program is its output, and goes to FOLDER/PAGE-1.txt.
/^```/ && kind != "" {
    if (kind == "cpp" && hasMain) { close(program); hasMain = 0; ended = number; program = "" }
    kind = ""
    next
}
/^```/ {
    kind = substr($0, 4)
    if (kind == "cpp" && program == "") { program = name "-" ++number ".cpp"; ended = 0 }
    next
}
kind == "cpp" {
    print > program
    if (/int main\(/) hasMain = 1
}
kind == "text" && ended { print > (name "-" ended ".txt") }
END { if (program != "") print "int main() {}" > program }
