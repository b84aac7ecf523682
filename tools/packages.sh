# Packages of any architecture, unpacked and not installed. This needs no root: apt works on package
# lists of its own here, and those of the machine stay as they are. To be sourced.

# fetchPackages <folder> <attempts> <architecture> <function>: downloads the packages whose names the
# function prints, one a line or none, and unpacks them into the folder's `root`. The function may ask
# apt-cache, and fails where that does not tell. Fails if the last attempt does; the folder's `log` then
# says why.
fetchPackages()
{
    local folder=$1 attempts=$2 architecture=$3 names=$4 attempt
    mkdir -p "$folder"/lists/state/lists/partial "$folder"/lists/cache/archives/partial
    : >"$folder"/lists/status
    cat >"$folder"/lists/apt.conf <<END
APT::Architecture "$architecture";
APT::Architectures { "$architecture"; };
APT::Sandbox::User "";
Dir::State "$folder/lists/state";
Dir::State::status "$folder/lists/status";
Dir::Cache "$folder/lists/cache";
Acquire::Languages "none";
Acquire::Retries "3";
END
    local -x APT_CONFIG=$folder/lists/apt.conf
    for attempt in $(seq "$attempts"); do
        [ "$attempt" = 1 ] || sleep 5
        rm -rf "$folder"/packages "$folder"/root
        mkdir "$folder"/packages
        # An index may fail to download, as those of a foreign architecture do at times; what matters
        # is whether the others name the packages. They are fetched anew for each attempt, since what
        # they name may have made room for something newer.
        apt-get -q update >"$folder"/log 2>&1 || true
        if "$names" >"$folder"/names 2>>"$folder"/log &&
            (cd "$folder"/packages && xargs -r apt-get -q download <../names) >>"$folder"/log 2>&1 &&
            unpackAll "$folder"/packages "$folder"/root 2>>"$folder"/log; then
            rm -rf "$folder"/packages "$folder"/lists
            return
        fi
    done
    return 1
}

# unpackAll <folder of packages> <folder for their files>
unpackAll()
{
    mkdir "$2"
    find "$1" -name '*.deb' -print0 | xargs -0 -r -I{} dpkg -x {} "$2"
}
