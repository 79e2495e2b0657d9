"""Starts something in the wrapper of namespaces.

    python3 -m testbed run COMMAND [ARGUMENT...]    any command
    python3 -m testbed demo [OPTION...]             the demo
"""

import sys

from testbed import namespaces, target


def main() -> None:
    """Entry point: see the module's text."""
    arguments = sys.argv[1:]
    try:
        target.check_build_directory()
    except NotADirectoryError as error:
        sys.exit(f"testbed: {error}")
    if len(arguments) >= 2 and arguments[0] == "run":
        namespaces.run_in_wrapper(arguments[1:])
    elif arguments[:1] == ["demo"]:
        if not namespaces.inside_wrapper():
            namespaces.run_in_wrapper([sys.executable, "-m", "testbed", *arguments])
        from testbed import demo
        sys.exit(demo.main(arguments[1:]))
    else:
        sys.exit((__doc__ or "").strip())


if __name__ == "__main__":
    main()
