# Stages 2 and 3: Comet on kSieve's MGF files and on the declared precursors of
# the same scans, then target-decoy FDR with OpenMS, per run and side.


rule decoy_database:
    input:
        FASTA,
    output:
        f"{OUT}/work/target_decoy.fasta",
    log:
        f"{OUT}/logs/decoy_database.log",
    run:
        with open(log[0], "w") as stream:
            subprocess.run(["DecoyDatabase", "-in", str(input[0]), "-out", output[0],
                            "-decoy_string", config["decoy_prefix"],
                            "-decoy_string_position", "prefix", "-method", "reverse"],
                           stdout=stream, stderr=subprocess.STDOUT, check=True)


def search_input(wildcards):
    inputs = {
        "table": f"{OUT}/runs/{wildcards.run}/ksieve/{wildcards.run}.csv",
        "info": f"{OUT}/runs/{wildcards.run}/ksieve_info.json",
        "database": f"{OUT}/work/target_decoy.fasta",
        "settings": f"{OUT}/work/settings.json",
    }
    if wildcards.side == "declared":
        inputs["ms2"] = f"{OUT}/runs/{wildcards.run}/ksieve/{wildcards.run}.ms2"
    return inputs


rule search:
    input:
        unpack(search_input),
    output:
        f"{OUT}/runs/{{run}}/search/{{side}}.idXML",
    log:
        f"{OUT}/logs/{{run}}/search_{{side}}.log",
    threads: config["search_threads"]
    run:
        python_script("search.py", "--side", wildcards.side, "--run", wildcards.run,
                      "--run-dir", f"{OUT}/runs/{wildcards.run}",
                      "--ksieve-dir", Path(input.table).parent, "--info", input.info,
                      "--database", input.database, "--settings", input.settings,
                      "--template", Path(workflow.basedir) / "resources/comet.params.template",
                      "--threads", threads, "--out", output[0], "--log", log[0])


rule fdr:
    input:
        hits=f"{OUT}/runs/{{run}}/search/{{side}}.idXML",
        settings=f"{OUT}/work/settings.json",
    output:
        all=f"{OUT}/runs/{{run}}/fdr/{{side}}_all.tsv",
        accepted=f"{OUT}/runs/{{run}}/fdr/{{side}}_accepted.tsv",
    log:
        f"{OUT}/logs/{{run}}/fdr_{{side}}.log",
    run:
        python_script("fdr.py", "--run", wildcards.run, "--run-dir", f"{OUT}/runs/{wildcards.run}",
                      "--side", wildcards.side, "--hits", input.hits, "--settings", input.settings,
                      "--all", output.all, "--accepted", output.accepted, "--log", log[0])
