"""What the suite tools read of a C++ or QML source: its code without comments."""


def masked(lines):
    """Each line with comments and the insides of string and character literals blanked, so
    that no mutant lands in them; the columns stay where they were."""
    out = []
    in_block = False
    for line in lines:
        chars = list(line)
        i, n = 0, len(line)
        while i < n:
            if in_block:
                end = line.find("*/", i)
                stop = n if end < 0 else end + 2
                for k in range(i, stop):
                    chars[k] = " "
                in_block = end < 0
                i = stop
                continue
            if line.startswith("//", i):
                for k in range(i, n):
                    chars[k] = " "
                break
            if line.startswith("/*", i):
                in_block = True
                continue
            c = line[i]
            if c in "\"'":
                j = i + 1
                while j < n and line[j] != c:
                    j += 2 if line[j] == "\\" else 1
                for k in range(i + 1, min(j, n)):
                    chars[k] = " "
                i = j + 1
                continue
            i += 1
        out.append("".join(chars))
    return out
