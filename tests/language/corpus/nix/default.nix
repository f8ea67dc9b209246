{ pkgs ? import <nixpkgs> {} }:

pkgs.stdenv.mkDerivation rec {
  pname = "hello-tool";
  version = "1.2.0";

  src = pkgs.fetchurl {
    url = "https://example.org/${pname}-${version}.tar.gz";
    sha256 = "0000000000000000000000000000000000000000000000000000";
  };

  nativeBuildInputs = with pkgs; [ cmake ninja ];
  buildInputs = [ pkgs.zlib ];

  meta = with pkgs.lib; {
    description = "A small tool";
    license = licenses.mit;
  };
}
