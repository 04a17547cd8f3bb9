# Sourced after world.bash by the tests that run once for each family of tokens: what they differ in.
# shellcheck shell=bash
# shellcheck disable=SC2034  # the tests use these

# family_facts idc|kt|jc|et72k
#   title, pin, wrong_pin, model, token_label (as a C string)
#   rsa_pairs        arguments for a token with two RSA pairs and their certificates
#   first, second    IDs of those pairs
#   wrong_pin_code   what a client hears of a wrong PIN
#   sign_words       a signature in the trace of the token
#   gost_id, gost_mechanism   of the GOST pair on the usual token, or nothing
#   certified, uncertified    ID of an RSA pair with, and of one without certificate there
family_facts() {
    family=$1
    pin=1234 wrong_pin=9999
    wrong_pin_code=CKR_PIN_INCORRECT
    sign_words='sign with RSA key'
    first=00 second=01
    certified=00 uncertified='' gost_id=01 gost_mechanism=0x84B5A002
    rsa_pairs="--family $1 --objects rsa2048+certificate,rsa2048+certificate"
    case $1 in
    idc)
        title='Kazakhstan ID card' model=KZIDCARD token_label='Kazakhstan IDCard'
        rsa_pairs="--family idc" first=87 second=88 certified=87
        gost_id='' gost_mechanism=''
        wrong_pin_code=CKR_FUNCTION_FAILED
        sign_words=' sign [0-9]+ bytes'
        ;;
    kt)
        title=KAZTOKEN model=KAZTOKEN token_label="KAZTOKEN$(printf '%14s' '')"
        rsa_pairs="--family kt --pairs rsa2048,rsa2048" first=01 second=02
        pin=123456 wrong_pin=654321 certified=01 gost_id=02 uncertified=03
        sign_words=' sign [0-9]+ bytes'
        ;;
    jc)
        title=JaCarta model='JaCarta PKI' token_label="JaCarta$(printf '%15s' '')"
        gost_mechanism=0xFFFFFFFF84B5A002
        ;;
    et72k)
        title='eToken 72K' model='EToken 72K' token_label="EToken$(printf '%16s' '')"
        uncertified=02
        ;;
    *)
        fail "there is no family $1"
        ;;
    esac
}

# How many signatures the first card was asked for.
signatures() {
    commands "$sign_words"
}
