# Stages 2 and 3: Comet on kSieve's MGF files and on the declared precursors of
# the same scans, then target-decoy FDR with OpenMS, per run and side.


rule entrapment_database:
    input:
        FASTA,
    output:
        f"{OUT}/work/target_entrapment.fasta",
    params:
        argv=lambda wildcards, input, output: [
            "entrapment.py", input[0], output[0], config["entrapment_prefix"]],
    script:
        STAGE


rule decoy_database:
    input:
        f"{OUT}/work/target_entrapment.fasta" if config["entrapment"] else FASTA,
    output:
        f"{OUT}/work/target_decoy.fasta",
    log:
        f"{OUT}/logs/decoy_database.log",
    params:
        argv=lambda wildcards, input, output: [
            "DecoyDatabase", "-in", input[0], "-out", output[0],
            "-decoy_string", config["decoy_prefix"], "-decoy_string_position", "prefix",
            "-method", "reverse"],
        log_streams=f"{OUT}/logs/decoy_database.log",
    script:
        STAGE


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
    params:
        argv=lambda wildcards, input, output, threads: [
            "search.py", f"--side={wildcards.side}", f"--run={wildcards.run}",
            f"--run-dir={OUT}/runs/{wildcards.run}",
            f"--ksieve-dir={Path(input.table).parent}", f"--info={input.info}",
            f"--database={input.database}", f"--settings={input.settings}",
            f"--template={Path(workflow.basedir) / 'resources/comet.params.template'}",
            f"--threads={threads}", f"--out={output[0]}",
            f"--log={OUT}/logs/{wildcards.run}/search_{wildcards.side}.log"],
    script:
        STAGE


rule fdr:
    input:
        hits=f"{OUT}/runs/{{run}}/search/{{side}}.idXML",
        settings=f"{OUT}/work/settings.json",
        scans=f"{OUT}/runs/{{run}}/scans.tsv",
    output:
        all=f"{OUT}/runs/{{run}}/fdr/{{side}}_all.tsv",
        accepted=f"{OUT}/runs/{{run}}/fdr/{{side}}_accepted.tsv",
        rescoring=f"{OUT}/runs/{{run}}/fdr/{{side}}_rescoring.json",
    log:
        f"{OUT}/logs/{{run}}/fdr_{{side}}.log",
    params:
        argv=lambda wildcards, input, output: [
            "fdr.py", f"--run={wildcards.run}", f"--run-dir={OUT}/runs/{wildcards.run}",
            f"--side={wildcards.side}", f"--hits={input.hits}",
            f"--settings={input.settings}", f"--all={output.all}",
            f"--accepted={output.accepted}", f"--rescoring={output.rescoring}",
            f"--scans={input.scans}",
            f"--precursors={OUT}/runs/{wildcards.run}/ksieve/{wildcards.run}.precursors.tsv"
            if wildcards.side == "ksieve" else "--precursors=",
            f"--log={OUT}/logs/{wildcards.run}/fdr_{wildcards.side}.log"],
    script:
        STAGE
