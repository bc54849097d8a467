"""Makes wrong changes in copies of the sources and runs the tests on each. Scripts/mutate says what for.

    mutate.py N SEED PATH COPIES     in the checkout
"""

import concurrent.futures, hashlib, json, os, pathlib, random, re, resource, shutil, signal, subprocess, sys
import tempfile, threading, time

HOME = pathlib.Path("build/mutate")
BINARIES = ("CoreTests", "FaultTests", "ProgramTests")
SLOW_SECONDS = 0.5          # tests that take longer are tried last
MEMORY = 8 << 30            # address space: a change can make a loop allocate without end
NEVER = "ExchangeTimeLimits.*"  # they wait for minutes


# --- changes -------------------------------------------------------------------------------------------------------

class Change:
    """One wrong change: `before` at `start` of a file becomes `after`."""

    def __init__(self, path, text, kind, start, before, after):
        self.path, self.kind, self.start, self.before, self.after = path, kind, start, before, after
        self.line_number = text.count("\n", 0, start) + 1
        begin, end = text.rfind("\n", 0, start) + 1, text.find("\n", start + len(before))
        self.line = text[begin:end]
        self.changed_line = text[begin:start] + after + text[start + len(before):end]

    def applied(self, text):
        return text[:self.start] + self.after + text[self.start + len(self.before):]

    def shown(self):
        first = f"{self.path}:{self.line_number}: {self.kind}"
        return f"{first}\n    - {self.line.strip()}\n    + {self.changed_line.strip()}"


COMMENT_OR_LITERAL = re.compile(
    r'//[^\n]*|/\*.*?\*/|^[ \t]*#[^\n]*|R"(\w*)\(.*?\)\1"|'
    r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'(?!\w)', re.S | re.M)
# (kind, pattern, replacements): the pattern sees code alone; operators with blanks around them are not templates'.
OPERATORS = [
    ("comparison", r"(?<= )==(?= )", ["!="]), ("comparison", r"(?<= )!=(?= )", ["=="]),
    ("boundary", r"(?<= )<(?= )", ["<=", ">"]), ("boundary", r"(?<= )>(?= )", [">=", "<"]),
    ("boundary", r"(?<= )<=(?= )", ["<"]), ("boundary", r"(?<= )>=(?= )", [">"]),
    ("logic", r"(?<= )&&(?= )", ["||"]), ("logic", r"(?<= )\|\|(?= )", ["&&"]), ("logic", r"!(?=[\w(:])", [""]),
    ("logic", r"\btrue\b", ["false"]), ("logic", r"\bfalse\b", ["true"]),
    ("arithmetic", r"(?<= )\+(?= )", ["-"]), ("arithmetic", r"(?<= )-(?= )", ["+"]),
    ("arithmetic", r"(?<= )\*(?= )", ["/"]), ("arithmetic", r"(?<= )/(?= )", ["*"]),
    ("arithmetic", r"(?<= )%(?= )", ["/"]), ("arithmetic", r"(?<= )\+=(?= )", ["-="]),
    ("arithmetic", r"(?<= )-=(?= )", ["+="]), ("arithmetic", r"\+\+", ["--"]),
    ("arithmetic", r"(?<=[\w)])--|--(?=\w)", ["++"]),
    ("bits", r"(?<= )&(?= )", ["|"]), ("bits", r"(?<= )\|(?= )", ["&"]),
    ("bits", r"(?<= )<<(?= )", [">>"]), ("bits", r"(?<= )>>(?= )", ["<<"]),
    ("statement", r"\b(break|continue)(?=;)", [""]),
]
INTEGER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|[0-9][0-9']*)(?=([uUlLzZ]*)(?![\w.]))")
# A whole statement on its own lines that is neither a declaration nor a return: a call or an assignment.
STATEMENT = re.compile(
    r"(?:(?<=[;{})])|(?<=[^:]:))\s*\n?[ \t]*((?:\+\+|--|\*)?"
    r"(?!(?:return|using|throw|case|else|if|for|while|do|static_assert|namespace|goto|delete|default|public|private)\b)"
    r"[A-Za-z_][\w:.\[\]]*(?:->[\w.]+)*"
    r"(?:\((?:[^;{}]*)\)|\s*(?:[-+*/%&|^]|<<|>>)?=(?!=)[^;{}]*|\+\+|--)"
    r"|(?:\+\+|--)[A-Za-z_][\w.]*);")


def blanked(text):
    """The text with comments, preprocessor lines and literals as blanks, and the literals' places."""
    literals = []

    def blank(match):
        if match[0][0] in "\"'":
            literals.append(match)
        return re.sub(r"[^\n]", " ", match[0]) if match[0][0] not in "\"'" else "\x01" * len(match[0])

    return COMMENT_OR_LITERAL.sub(blank, text), literals


def next_integer(digits, step):
    plain = digits.replace("'", "")
    value = int(plain, 0) if not re.fullmatch(r"0[0-7]+", plain) else int(plain, 8)
    if value + step < 0:
        return None
    return hex(value + step) if plain[:2].lower() == "0x" else str(value + step)


def changes_in(path):
    text = path.read_text(encoding="utf-8")
    code, literals = blanked(text)
    found = []

    def add(kind, start, before, after):
        found.append(Change(path, text, kind, start, before, after))

    for kind, pattern, replacements in OPERATORS:
        for match in re.finditer(pattern, code):
            for after in replacements:
                add(kind, match.start(), match[0], after)
    for match in INTEGER.finditer(code):
        for step in (1, -1):
            after = next_integer(match[1], step)
            if after is not None:
                add("constant", match.start(1), match[1], after)
    for match in STATEMENT.finditer(code):
        start, end = match.span(1)
        if " ? " in code[code.rfind("\n", 0, start):start]:
            continue  # the last part of a condition
        add("statement", start, text[start:end], "")
    strings = [literal for literal in literals if len(literal[0]) > 5 and literal[0][0] == '"']
    for index, literal in enumerate(strings):
        others = [other[0] for other in strings if other[0] != literal[0]]
        after = others[index % len(others)] if others else literal[0][:-2] + '"'
        add("text", literal.start(), literal[0], after)
    for literal in literals:
        if re.fullmatch(r"'[^\\]'", literal[0]):
            add("character", literal.start(), literal[0], f"'{chr(ord(literal[0][1]) ^ 1)}'".replace("'''", "'\\''"))

    def is_wanted(change):
        if re.match(r"\s*(static_assert|namespace|using|template|class|struct|enum)\b", change.line):
            return False
        # The catalog's rows and their texts.
        return path.name != "Catalog.cpp" or (change.kind != "text" and not re.match(r'\s*[{"]', change.line))

    return [change for change in sorted(found, key=lambda c: (c.start, c.kind, c.after)) if is_wanted(change)]


def all_changes(path):
    files = [path] if path.is_file() else sorted(p for p in path.rglob("*") if p.suffix in (".cpp", ".hpp"))
    return [change for file in files if "Darwin" not in file.name for change in changes_in(file)]


# --- trees ---------------------------------------------------------------------------------------------------------

def run(command, folder=None, limit=None, environment=None):
    """Exit status (None: took too long) and output of a command, which gets a process group of its own."""
    def limits():
        resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

    process = subprocess.Popen(command, cwd=folder, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, start_new_session=True, preexec_fn=limits)
    running.add(process)
    try:
        output, _ = process.communicate(timeout=limit)
        status = process.returncode
    except subprocess.TimeoutExpired:
        status, output = None, b""
    finally:
        end(process)
        running.discard(process)
    return status, output.decode(errors="replace")


def end(process):
    """Ends what a command has left running, too."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


running = set()


class Tree:
    """A copy of the sources, its build, and the tests in the order in which they are tried."""

    def __init__(self, number, temporary):
        self.source, self.build = (HOME / str(number) / "source").resolve(), (HOME / str(number) / "build").resolve()
        self.environment = {**os.environ, "TMPDIR": temporary}

    def synchronize(self):
        """Writes only what differs, so that only that is built again."""
        listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                                check=True, capture_output=True).stdout.decode().split("\0")
        wanted = {name for name in listed if name and os.path.isfile(name)}
        for name in wanted:
            copy, content = self.source / name, pathlib.Path(name).read_bytes()
            if not copy.is_file() or copy.read_bytes() != content:
                copy.parent.mkdir(parents=True, exist_ok=True)
                copy.write_bytes(content)
                shutil.copymode(name, copy)
        for copy in [path for path in self.source.rglob("*") if path.is_file()]:
            if str(copy.relative_to(self.source)) not in wanted:
                copy.unlink()

    def prepare(self, jobs):
        self.synchronize()
        # Compiled as fast as can be: no optimisation, no debug information, no warnings.
        for command in (["cmake", "-S", self.source, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=",
                         "-DCMAKE_CXX_FLAGS=-O0 -w -pipe -D_GLIBCXX_ASSERTIONS", "-DTIDEWELL_TESTS=ON",
                         "-DTIDEWELL_HARDENING=OFF", "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld",
                         "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"],
                        ["cmake", "--build", self.build, "--parallel", str(jobs), "--target", *BINARIES]):
            status, output = run(command)
            if status != 0:
                sys.exit(f"{output[-4000:]}\nThe unchanged sources could not be built.")

    def make(self, *targets):
        return run(["ninja", "-C", self.build, "-j", "1", *targets], limit=600)[0] == 0

    def code(self):
        """What the program consists of, for comparison."""
        files = [*self.build.glob("Sources/**/*.a"), *self.build.glob("Sources/**/main.cpp.o")]
        return [hashlib.sha256(file.read_bytes()).digest() for file in sorted(files)]

    def measure(self):
        """Runs all tests once: {binary: {test: seconds}} of those that pass."""
        measured = {}
        for binary in BINARIES:
            report = self.build / f"{binary}.json"
            report.unlink(missing_ok=True)
            run([self.build / "bin" / binary, f"--gtest_filter=-{NEVER}", f"--gtest_output=json:{report}"],
                self.build, 900, self.environment)
            if not report.is_file():
                sys.exit(f"{binary} ends early with the unchanged sources")
            measured[binary] = {}
            for suite in json.loads(report.read_text())["testsuites"]:
                for test in suite["testsuite"]:
                    name = f"{suite['name']}.{test['name']}"
                    if "failures" in test:
                        print(f"Left out, because it fails with the unchanged sources: {name}")
                    else:
                        measured[binary][name] = float(test["time"].rstrip("s"))
        return measured

    def passes(self, binary, tests, seconds):
        """None if all these tests pass, else how the first one failed."""
        status, output = run([self.build / "bin" / binary, "--gtest_fail_fast", "--gtest_brief=1",
                              "--gtest_filter=" + ":".join(tests)], self.build, 30 + 10 * seconds, self.environment)
        if status == 0:
            return None
        if status is None:
            return "too slow"
        failed = re.search(r"^\[  FAILED  \] (\S+\.[^\s,(]+)", output, re.M)
        return failed[1] if failed else f"{binary} ended with {status}"

    def judge(self, change, order):
        """"killed", "survived", "equal" or "not compiled", and by which test."""
        copy = self.source / change.path
        original = copy.read_text(encoding="utf-8")
        copy.write_text(change.applied(original), encoding="utf-8")
        try:
            if not self.make("TidewellMCP"):
                return "not compiled", ""
            if self.code() == self.unchanged:
                return "equal", ""
            for binary, tests, seconds in order(change):
                if not self.make(binary):
                    return "not compiled", ""
                killer = self.passes(binary, tests, seconds)
                if killer is not None:
                    return "killed", killer
            return "survived", ""
        finally:
            copy.write_text(original, encoding="utf-8")


def suites_of(folder, stem):
    """The names of the test suites of a room, or of the files in it that are named after a source file."""
    names = set()
    for file in pathlib.Path("Tests", folder).glob(f"{stem}*.cpp"):
        for match in re.finditer(r"^(?:TEST(?:_F|_P)?|INSTANTIATE_TEST_SUITE_P)\(\s*(\w+)", file.read_text(), re.M):
            names.add(match[1])
    return names


def make_order(measured):
    """Gives for a change the groups of tests: its own file's and room's, all others, and at the end the slow ones."""
    def order(change):
        room = change.path.parent.name
        groups, seen = [], set()

        def add(wanted):
            for binary in BINARIES:
                tests = [name for name in measured[binary] if name not in seen and wanted(name, measured[binary][name])]
                seen.update(tests)
                if tests:
                    groups.append((binary, tests, sum(measured[binary][name] for name in tests)))

        def belongs(names):
            return lambda name, seconds: seconds <= SLOW_SECONDS and name.split(".")[0].split("/")[0] in names

        add(belongs(suites_of(room, change.path.stem)))
        add(belongs(suites_of(room, "")))
        add(lambda name, seconds: seconds <= SLOW_SECONDS)
        add(lambda name, seconds: True)
        return groups

    return order


# --- all of it -------------------------------------------------------------------------------------------------------

def main():
    wanted, seed, path, copies = int(sys.argv[1]), int(sys.argv[2]), pathlib.Path(sys.argv[3]), int(sys.argv[4])
    if path.is_absolute():
        path = path.relative_to(pathlib.Path.cwd())
    changes = all_changes(path)
    random.Random(seed).shuffle(changes)
    temporary = tempfile.mkdtemp(prefix="tw-", dir="/tmp")  # short, because tests make sockets below it
    begun = time.monotonic()

    def stop(signal_number, frame):
        for process in list(running):
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        shutil.rmtree(temporary, ignore_errors=True)
        os._exit(130)

    signal.signal(signal.SIGINT, stop)
    signal.signal(signal.SIGTERM, stop)
    try:
        trees = [Tree(number, temporary) for number in range(copies)]
        print(f"{len(changes)} changes are possible in {path}. Building {copies} copies…", flush=True)
        for tree in trees:
            tree.prepare(os.cpu_count() or 1)
            tree.unchanged = tree.code()
        print(f"Built after {time.monotonic() - begun:.0f} s. Running the tests unchanged…", flush=True)
        order = make_order(trees[0].measure())
        results = judge_all(changes, wanted, trees, order)
        report(results, seed, path, len(changes), time.monotonic() - begun)
    finally:
        shutil.rmtree(temporary, ignore_errors=True)


def judge_all(changes, wanted, trees, order):
    """Tries changes in their order until `wanted` of them count; the same ones, whatever the number of trees."""
    lock, results, free = threading.Lock(), {}, list(trees)
    counted = 0

    def judge(index):
        nonlocal counted
        with lock:
            tree = free.pop()
        since = time.monotonic()
        verdict, killer = tree.judge(changes[index], order)
        with lock:
            free.append(tree)
            results[index] = (changes[index], verdict, killer)
            if verdict in ("killed", "survived"):
                counted += 1
            print(f"[{counted}/{wanted}] {verdict}{': ' if killer else ''}{killer} ({time.monotonic() - since:.0f} s)\n"
                  f"{changes[index].shown()}", flush=True)

    with concurrent.futures.ThreadPoolExecutor(len(trees)) as pool:
        pending, index = set(), 0
        while True:
            while index < len(changes) and len(pending) < len(trees) and counted + len(pending) < wanted:
                pending.add(pool.submit(judge, index))
                index += 1
            if not pending:
                break
            done, pending = concurrent.futures.wait(pending, return_when=concurrent.futures.FIRST_COMPLETED)
            for future in done:
                future.result()
    return [results[index] for index in sorted(results)]


def report(results, seed, path, possible, seconds):
    def count(verdict):
        return sum(1 for result in results if result[1] == verdict)

    lines = [change.shown() for change, verdict, _ in results if verdict == "survived"]
    lines.insert(0, f"Survivors: {len(lines)}" if lines else "There are no survivors.")
    killed, total = count("killed"), count("killed") + count("survived")
    slow = sum(1 for result in results if result[2] == "too slow")
    lines.append(f"Not counted: {count('not compiled')} that did not compile, {count('equal')} without any effect")
    lines.append(f"Seed {seed}, {path}: {possible} possible changes; {seconds / 60:.0f} minutes")
    lines.append(f"{killed} of {total} changes were noticed ({100 * killed / max(total, 1):.1f} %), "
                 f"{slow} of them by a test that took too long")
    text = "\n".join(lines)
    (HOME / "report.txt").write_text(text + "\n", encoding="utf-8")
    print("\n" + text)


if __name__ == "__main__":
    main()
